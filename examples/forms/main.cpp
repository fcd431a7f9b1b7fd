// A guest book: a form with a picture, and a page of what was sent.

#include <velkoro/documents.h>
#include <velkoro/server.h>

#include <deque>
#include <iostream>
#include <mutex>

using velkoro::Answer;
using velkoro::Element;
using velkoro::Request;

namespace {

struct Entry {
  std::string name;
  std::string words;
  std::string picture;  // a PNG file, or nothing
};

std::mutex lock;  // handlers run on several threads
std::deque<Entry> entries;

void ShowBook(const Request&, Answer& answer) {
  velkoro::Document page = velkoro::Document::ReadFile("book.html", velkoro::DocumentKind::kHtml);
  Element list = page.QueryFirst("//ul");
  const std::lock_guard hold(lock);
  for (std::size_t at = entries.size(); at-- > 0;) {
    Element item = list.Add("li");
    item.Add("b").SetText(entries[at].name);
    item.AddText(": " + entries[at].words);
    if (!entries[at].picture.empty()) item.Add("img").Set("src", "/pictures/" + std::to_string(at));
  }
  answer.Html(page);
}

void AddEntry(const Request& request, Answer& answer) {
  Entry entry{request.Field("name", "Nobody"), request.Field("words"), ""};
  if (const auto picture = request.File("picture"); picture && !picture->bytes.empty()) {
    if (!picture->bytes.starts_with("\x89PNG")) throw velkoro::RequestError(415, "no PNG file");
    entry.picture = picture->bytes;
  }
  const std::lock_guard hold(lock);
  entries.push_back(std::move(entry));
  answer.Redirect("/");
}

void SendPicture(const Request& request, Answer& answer) {
  const auto at = request.Path<std::size_t>("number");
  const std::lock_guard hold(lock);
  if (at >= entries.size() || entries[at].picture.empty())
    throw velkoro::RequestError(404, "there is no such picture");
  answer.Body(entries[at].picture, "image/png");
}

}  // namespace

int main(int count, char** arguments) try {
  const std::string url = count > 1 ? arguments[1] : "http://127.0.0.1:8080";
  velkoro::Server server({.listen = {url}});
  server.Handle("GET", "/", ShowBook);
  server.Handle("POST", "/", AddEntry);
  server.Handle("GET", "/pictures/{number}", SendPicture);
  std::cout << server.Start() << std::endl;
  std::cin.get();
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}

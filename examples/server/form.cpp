// Takes a form with a file, behind a password.

#include <velkoro/client.h>
#include <velkoro/documents.h>
#include <velkoro/server.h>

#include <iostream>

using velkoro::Answer;
using velkoro::Request;

int main() {
  velkoro::Server server({.listen = {"http://127.0.0.1:0"}});
  server.Before("/notes", velkoro::BasicAuthentication("notes", {{"ada", "engine"}}));
  server.After([](const Request& request, const Answer& answer) {
    std::cout << request.Method() << ' ' << request.Path() << ": " << answer.Status() << '\n';
  });
  server.Handle("POST", "/notes", [](const Request& request, Answer& answer) {
    velkoro::Document page("html", velkoro::DocumentKind::kHtml);
    velkoro::Element body = page.Root().Add("body");
    body.Add("h1").SetText(request.Field("title", "untitled"));
    body.Add("p").SetText(std::to_string(request.Field<int>("pages")) + " pages, by " +
                          request.User());
    for (const velkoro::Upload& upload : request.Uploads())
      body.Add("p").SetText(upload.name + ": " + std::to_string(upload.bytes.size()) + " bytes");
    answer.SetCookie({.name = "last", .value = "1"}).Html(page);
  });
  const std::string url = server.Start() + "/notes";

  std::cout << velkoro::Ask({.url = url, .method = "POST"}).get().status << '\n';
  const velkoro::TextPairs known = {{"Authorization", "Basic YWRhOmVuZ2luZQ=="}};
  const velkoro::Outcome note =
      velkoro::Ask({.url = url, .fields = {{"title", "<1>"}, {"pages", "12"}}, .headers = known})
          .get();
  std::cout << note.body << note.Header("set-cookie") << '\n';
  std::cout << velkoro::Ask({.url = url, .fields = {{"pages", "x"}}, .headers = known}).get().body;
}

// Answers when there is something to say, from another thread.

#include <velkoro/client.h>
#include <velkoro/server.h>

#include <iostream>
#include <mutex>
#include <optional>

using velkoro::Answer;
using velkoro::Request;

int main() {
  std::mutex lock;
  std::optional<velkoro::Later> waiting;  // goes behind the server: it may outlive that
  velkoro::Server server(
      {.listen = {"http://127.0.0.1:0"}, .handlerLimit = std::chrono::seconds(5)});
  server.Handle("GET", "/news", [&](const Request&, Answer& answer) {
    const std::lock_guard hold(lock);
    waiting = answer.Defer();
  });
  server.Handle(
      "POST", "/news",
      [&](const Request& request, Answer& answer) {
        const std::lock_guard hold(lock);
        if (!waiting) throw velkoro::RequestError(409, "nobody waits");
        (*waiting)->Text(request.Field("text"));
        answer.Text(waiting->Send() ? "told" : "too late");
        waiting.reset();
      });
  server.Handle("GET", "/broken", [](const Request&, Answer&) { throw 1; });
  const std::string url = server.Start();

  std::future<velkoro::Outcome> news = velkoro::Ask({.url = url + "/news"});
  std::string told;
  while (told != "told")
    told = velkoro::Ask({.url = url + "/news", .fields = {{"text", "snow"}}}).get().body;
  std::cout << told << ' ' << news.get().body << '\n';
  std::cout << velkoro::Ask({.url = url + "/broken"}).get().status << '\n';
  server.Stop();
  std::cout << velkoro::Ask({.url = url}).get().status << '\n';
}

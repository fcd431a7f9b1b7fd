// Asks for several things at once, and for one that does not come.

#include <velkoro/client.h>
#include <velkoro/server.h>

#include <iostream>
#include <mutex>

int main() {
  velkoro::Server server({.listen = {"http://127.0.0.1:0"}, .grace = {}});
  server.Handle(
      "GET", "/square/{n}",
      [](const velkoro::Request& request, velkoro::Answer& answer) {
        const int n = request.Path<int>("n");
        answer.Text(std::to_string(n * n));
      });
  server.Handle(
      "GET", "/old",
      [](const velkoro::Request&, velkoro::Answer& answer) { answer.Redirect("/square/9", 301); });
  server.Handle("GET", "/slow", [](const velkoro::Request& request, velkoro::Answer&) {
    std::promise<void> gone;
    request.OnGone([&gone] { gone.set_value(); });
    gone.get_future().wait();
  });
  const std::string url = server.Start();

  std::vector<std::future<velkoro::Outcome>> coming;
  for (int n = 1; n <= 5; ++n)
    coming.push_back(velkoro::Ask({.url = url + "/square/" + std::to_string(n)}));
  for (auto& one : coming) std::cout << one.get().body << ' ';

  const velkoro::Outcome moved = velkoro::Ask({.url = url + "/old", .redirects = 3}).get();
  std::cout << moved.body << ' ' << moved.url.substr(url.size()) << '\n';

  std::promise<std::string> told;
  velkoro::Ask({.url = url + "/slow", .timeLimit = std::chrono::milliseconds(100)},
               [&told](const velkoro::Outcome& outcome) { told.set_value(outcome.error); });
  std::cout << told.get_future().get() << '\n';

  try {
    velkoro::Ask({.url = "example.org"});
  } catch (const velkoro::ClientError& error) {
    std::cout << error.what() << '\n';
  }
}

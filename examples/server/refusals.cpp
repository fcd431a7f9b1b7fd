// What is wrong is said when it is set.

#include <velkoro/server.h>

#include <functional>
#include <iostream>

int main() {
  const auto nothing = [](const velkoro::Request&, velkoro::Answer&) {};
  velkoro::Server server;
  for (const std::function<void()>& act : std::vector<std::function<void()>>{
           [] { velkoro::Server({.listen = {"127.0.0.1:80"}}); },
           [] { velkoro::Server({.directory = "/no/such/folder"}); },
           [] { velkoro::Server({.listen = {"https://127.0.0.1:0"}}); },
           [&] { server.Handle("GET", "/{a}/x", nothing).Handle("GET", "/{b}/x", nothing); },
           [&] { server.Handle("FETCH", "/", nothing); }}) {
    try {
      act();
    } catch (const velkoro::ServerError& error) {
      std::cout << error.what() << '\n';
    }
  }
}

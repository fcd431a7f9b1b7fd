#include <velkoro/server.h>

#include <iostream>

int main() {
  velkoro::Server server({.listen = {"http://127.0.0.1:8080"}, .directory = "www"});
  server.Handle("GET", "/hello/{name}",
                [](const velkoro::Request& request, velkoro::Answer& answer) {
                  answer.Text("Hello " + request.Path("name"));
                });
  std::cout << server.Start() << std::endl;  // the URL, once it listens; throws when it cannot
  std::cin.get();
}

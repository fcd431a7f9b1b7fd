// What bench/answers.py asks: a handler's "hello", a handler's 1 KiB, and files of the same sizes.
//   answers_server DIRECTORY [ROUTES]   prints its URL and serves until its input ends.

#include <velkoro/server.h>

#include <iostream>

int main(int count, char** arguments) {
  if (count < 2) return std::cerr << "usage: answers_server DIRECTORY [ROUTES]\n", 2;
  velkoro::Server server({.listen = {"http://127.0.0.1:0"}, .directory = arguments[1]});
  server.Handle(
      "GET", "/hello",
      [](const velkoro::Request&, velkoro::Answer& answer) { answer.Text("hello\n"); });
  server.Handle("GET", "/kilobyte", [](const velkoro::Request&, velkoro::Answer& answer) {
    answer.Body(std::string(1024, 'x'), "text/plain; charset=utf-8");
  });
  const int routes = count > 2 ? std::stoi(arguments[2]) : 0;
  for (int i = 0; i < routes; ++i) {
    server.Handle(
        "GET", "/things" + std::to_string(i) + "/{id}",
        [](const velkoro::Request&, velkoro::Answer& answer) { answer.Text("thing\n"); });
  }
  std::cout << server.Start() << std::endl;
  std::cin.get();
}

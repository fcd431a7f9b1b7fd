// Answers at paths of its own, and asks itself.

#include <velkoro/client.h>
#include <velkoro/server.h>

#include <iostream>

using velkoro::Answer;
using velkoro::Request;

int main() {
  velkoro::Server server({.listen = {"http://127.0.0.1:0"}});
  server.Handle(
      "GET", "/lamps/{id}",
      [](const Request& request, Answer& answer) {
        answer.Json("{\"id\":" + std::to_string(request.Path<int>("id")) + "}");
      });
  server.Handle(
      "GET", "/lamps/all",
      [](const Request& request, Answer& answer) {
        answer.Text("page " + std::to_string(request.Field("page", 1)));
      });
  server.Handle(
      "PUT", "/lamps/{id}",
      [](const Request& request, Answer& answer) {
        answer.Status(201).Header("Location", request.Path());
      });
  server.Handle("GET", "/files/{path...}",
                [](const Request& request, Answer& answer) { answer.Text(request.Path("path")); });
  server.Page("about", "<p>Lamps</p>");
  const std::string url = server.Start();

  for (const char* path :
       {"/lamps/7", "/lamps/all?page=2", "/lamps/attic", "/files/a/b", "/about"}) {
    const velkoro::Outcome outcome = velkoro::Ask({.url = url + path}).get();
    std::cout << path << ": " << outcome.status << ' ' << outcome.Header("content-type") << ' '
              << outcome.body << '\n';
  }
  const velkoro::Outcome made = velkoro::Ask({.url = url + "/lamps/8", .method = "PUT"}).get();
  std::cout << made.status << ' ' << made.Header("location") << '\n';
  const velkoro::Outcome refused = velkoro::Ask({.url = url + "/lamps/8", .body = "x"}).get();
  std::cout << refused.status << ' ' << refused.Header("allow") << '\n';
}

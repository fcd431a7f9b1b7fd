// Writes an answer while it is made, and reads a large body from front to end.

#include <velkoro/client.h>
#include <velkoro/server.h>

#include <iostream>

using velkoro::Answer;
using velkoro::Request;

int main() {
  velkoro::Server server({.listen = {"http://127.0.0.1:0"}, .handlerThreads = 4});
  server.OnEvent([](const velkoro::Event& event) {
    if (event.kind == velkoro::Event::Kind::kListening) std::cout << "it listens\n";
  });
  server.Handle("GET", "/squares", [](const Request& request, Answer& answer) {
    const auto last = request.Field<int>("last");
    answer.Header("Content-Type", "text/csv").Header("X-Accel-Buffering", "no");
    velkoro::Stream rows = answer.Begin();
    for (int n = 1; n <= last && !rows.Gone(); ++n)
      rows.Write(std::to_string(n) + ";" + std::to_string(n * n) + "\n");
  });
  server.Handle("PUT", "/lines", [](const Request& request, Answer& answer) {
    std::size_t lines = 0;
    const std::unique_ptr<std::istream> body = request.BodyStream();
    for (std::string line; std::getline(*body, line);) ++lines;
    answer.Text(std::to_string(lines) + " lines, " + request.Header("content-type"));
  });
  const std::string url = server.Start();

  std::cout << velkoro::Ask({.url = url + "/squares?last=3"}).get().body;
  const velkoro::Outcome counted = velkoro::Ask({.url = url + "/lines",
                                                 .method = "PUT",
                                                 .body = std::string(3 << 20, '\n'),
                                                 .type = "text/plain"})
                                       .get();
  std::cout << counted.body << '\n';
}

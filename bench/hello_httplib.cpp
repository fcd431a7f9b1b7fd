// "hello" by cpp-httplib, for bench/answers.py. It has a thread for each connection in progress: as
// many as are asked over, and no end of the requests of one.

#include <httplib.h>

#include <iostream>
#include <limits>
#include <thread>

int main() {
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(64); };
  server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
  server.set_tcp_nodelay(true);
  server.Get("/hello", [](const httplib::Request&, httplib::Response& answer) {
    answer.set_content("hello\n", "text/plain; charset=utf-8");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::thread serving([&server] { server.listen_after_bind(); });
  std::cout << "http://127.0.0.1:" << port << std::endl;
  std::cin.get();
  server.stop();
  serving.join();
}

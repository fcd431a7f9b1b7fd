#include <velkoro/host.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <thread>

int main(int count, char** arguments) try {
  if (count != 3) return std::cerr << "usage: host CERTIFICATE PRIVATE-KEY\n", 2;
  void* server = StartHTTPServer("127.0.0.1", 0, ".", ".", arguments[1], arguments[2]);
  for (int tries = 0; ServerPort(server) == 0 && tries < 500; ++tries)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::cout << "https://127.0.0.1:" << ServerPort(server) << "/ until you press Return"
            << std::endl;
  std::cin.get();
  return StopHTTPserver(server);
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}

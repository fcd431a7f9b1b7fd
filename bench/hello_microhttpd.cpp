// "hello" by libmicrohttpd, for bench/answers.py: epoll on one thread for each core.

#include <microhttpd.h>

#include <cstring>
#include <iostream>
#include <thread>

namespace {

MHD_Result Answer(void*, MHD_Connection* connection, const char* path, const char*, const char*,
                  const char*, size_t*, void** seen) {
  static char begun;
  if (*seen == nullptr) {
    *seen = &begun;
    return MHD_YES;
  }
  const bool known = std::strcmp(path, "/hello") == 0;
  MHD_Response* const response = MHD_create_response_from_buffer(
      known ? 6 : 0, const_cast<char*>("hello\n"), MHD_RESPMEM_PERSISTENT);
  MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
  const MHD_Result result = MHD_queue_response(connection, known ? 200 : 404, response);
  MHD_destroy_response(response);
  return result;
}

}  // namespace

int main() {
  MHD_Daemon* const server = MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD, 0, nullptr, nullptr,
                                              &Answer, nullptr, MHD_OPTION_THREAD_POOL_SIZE,
                                              std::thread::hardware_concurrency(), MHD_OPTION_END);
  if (server == nullptr) return 1;
  std::cout << "http://127.0.0.1:" << MHD_get_daemon_info(server, MHD_DAEMON_INFO_BIND_PORT)->port
            << std::endl;
  std::cin.get();
  MHD_stop_daemon(server);
}

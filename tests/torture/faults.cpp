#include "tests/torture/faults.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

namespace zrtest {
namespace {

std::atomic<const char*> armed{nullptr};
std::atomic<int> error{0};
std::atomic<std::size_t> left{0};
std::atomic<bool> fired{false};
thread_local int exempt = 0;

bool Strikes(const char* call) {
  const char* const one = armed.load(std::memory_order_relaxed);
  if (one == nullptr || exempt > 0 || std::strcmp(one, call) != 0) return false;
  if (left.fetch_sub(1) != 1) return false;
  fired = true;
  errno = error;
  return true;
}

/// A call that moves bytes: fails, or moves one byte.
template <class Move>
ssize_t Moving(const char* call, std::size_t length, Move move) {
  if (!Strikes(call)) return move(length);
  return error == kOneByte ? move(std::min<std::size_t>(length, 1)) : -1;
}

}  // namespace

void Arm(const char* call, int number, std::size_t n) {
  error = number;
  left = n;
  fired = false;
  armed = call;
}
bool Disarm() {
  armed = nullptr;
  return fired;
}
Exempt::Exempt() { ++exempt; }
Exempt::~Exempt() { --exempt; }

}  // namespace zrtest

using zrtest::Moving;
using zrtest::Strikes;

// `__real_x` is the system's call, `__wrap_x` what the objects call instead.
#define ZR_WRAP(call, result, name, parameters, ...)        \
  extern "C" result __real_##name parameters;               \
  extern "C" result __wrap_##name parameters;               \
  extern "C" result __wrap_##name parameters {              \
    return Strikes(call) ? -1 : __real_##name(__VA_ARGS__); \
  }

ZR_WRAP("socket", int, socket, (int a, int b, int c), a, b, c)
ZR_WRAP("bind", int, bind, (int a, const sockaddr* b, socklen_t c), a, b, c)
ZR_WRAP("listen", int, listen, (int a, int b), a, b)
ZR_WRAP("accept", int, accept4, (int a, sockaddr* b, socklen_t* c, int d), a, b, c, d)
ZR_WRAP("connect", int, connect, (int a, const sockaddr* b, socklen_t c), a, b, c)
ZR_WRAP("setsockopt", int, setsockopt, (int a, int b, int c, const void* d, socklen_t e), a, b, c,
        d, e)
ZR_WRAP("send", ssize_t, sendmsg, (int a, const msghdr* b, int c), a, b, c)
ZR_WRAP("fstat", int, fstat, (int a, struct stat* b), a, b)
ZR_WRAP("pipe", int, pipe2, (int* a, int b), a, b)
ZR_WRAP("eventfd", int, eventfd, (unsigned a, int b), a, b)
ZR_WRAP("epoll_create", int, epoll_create1, (int a), a)
ZR_WRAP("epoll_ctl", int, epoll_ctl, (int a, int b, int c, epoll_event* d), a, b, c, d)
ZR_WRAP("epoll_wait", int, epoll_wait, (int a, epoll_event* b, int c, int d), a, b, c, d)
ZR_WRAP("poll", int, poll, (pollfd * a, nfds_t b, int c), a, b, c)

ZR_WRAP("fsync", int, fsync, (int a), a)
ZR_WRAP("rename", int, rename, (const char* a, const char* b), a, b)
ZR_WRAP("open", int, open, (const char* a, int b, mode_t c), a, b, c)
ZR_WRAP("fcntl", int, fcntl, (int a, int b, long c), a, b, c)
// openat2() and pidfd_open().
ZR_WRAP("syscall", long, syscall, (long a, long b, long c, long d, long e, long f, long g), a, b, c,
        d, e, f, g)
ZR_WRAP("open", int, mkostemp, (char* a, int b), a, b)
ZR_WRAP("spawn", pid_t, fork, ())

#define ZR_WRAP_MOVE(call, name, parameters, length, ...)                                      \
  extern "C" ssize_t __real_##name parameters;                                                 \
  extern "C" ssize_t __wrap_##name parameters;                                                 \
  extern "C" ssize_t __wrap_##name parameters {                                                \
    return Moving(call, length, [&](std::size_t most) { return __real_##name(__VA_ARGS__); }); \
  }

ZR_WRAP_MOVE("send", send, (int a, const void* b, std::size_t c, int d), c, a, b, most, d)
ZR_WRAP_MOVE("recv", recv, (int a, void* b, std::size_t c, int d), c, a, b, most, d)
ZR_WRAP_MOVE("sendfile", sendfile, (int a, int b, off_t* c, std::size_t d), d, a, b, c, most)
ZR_WRAP_MOVE("read", read, (int a, void* b, std::size_t c), c, a, b, most)
ZR_WRAP_MOVE("write", write, (int a, const void* b, std::size_t c), c, a, b, most)
ZR_WRAP_MOVE("pread", pread, (int a, void* b, std::size_t c, off_t d), c, a, b, most, d)

extern "C" {

int __real_posix_spawn(pid_t* a, const char* b, const posix_spawn_file_actions_t* c,
                       const posix_spawnattr_t* d, char* const* e, char* const* f);
int __wrap_posix_spawn(pid_t* a, const char* b, const posix_spawn_file_actions_t* c,
                       const posix_spawnattr_t* d, char* const* e, char* const* f);
int __wrap_posix_spawn(pid_t* a, const char* b, const posix_spawn_file_actions_t* c,
                       const posix_spawnattr_t* d, char* const* e, char* const* f) {
  return Strikes("spawn") ? zrtest::error.load() : __real_posix_spawn(a, b, c, d, e, f);
}

}  // extern "C"

#define ZR_START \
  "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
void RealStart(std::thread*, std::unique_ptr<std::thread::_State>,
               void (*)()) asm("__real_" ZR_START);
void WrappedStart(std::thread*, std::unique_ptr<std::thread::_State>,
                  void (*)()) asm("__wrap_" ZR_START);
void WrappedStart(std::thread* self, std::unique_ptr<std::thread::_State> state, void (*depend)()) {
  if (Strikes("thread")) throw std::system_error(errno, std::generic_category(), "thread");
  RealStart(self, std::move(state), depend);
}

void* operator new(std::size_t size) {
  void* const memory = Strikes("memory") ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

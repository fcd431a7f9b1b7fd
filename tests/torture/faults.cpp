#include "tests/torture/faults.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <spawn.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

namespace zrtest {
namespace {

std::atomic<int> armed{-1};
std::atomic<int> error{0};
std::atomic<std::size_t> left{0};
std::atomic<bool> fired{false};
thread_local int exempt = 0;

bool Strikes(Call call) {
  if (armed.load(std::memory_order_relaxed) != static_cast<int>(call) || exempt > 0) return false;
  if (left.fetch_sub(1) != 1) return false;
  fired = true;
  errno = error;
  return true;
}

/// A call that moves bytes: fails, or moves one byte.
template <class Move>
ssize_t Moving(Call call, std::size_t length, Move move) {
  if (!Strikes(call)) return move(length);
  return error == kOneByte ? move(std::min<std::size_t>(length, 1)) : -1;
}

}  // namespace

void Arm(Call call, int number, std::size_t n) {
  error = number;
  left = n;
  fired = false;
  armed = static_cast<int>(call);
}
bool Disarm() {
  armed = -1;
  return fired;
}
Exempt::Exempt() { ++exempt; }
Exempt::~Exempt() { --exempt; }

}  // namespace zrtest

using zrtest::Call;
using zrtest::Moving;
using zrtest::Strikes;

// `__real_x` is the system's call, `__wrap_x` what the objects call instead.
#define ZR_WRAP(call, result, name, parameters, ...)              \
  extern "C" result __real_##name parameters;                     \
  extern "C" result __wrap_##name parameters;                     \
  extern "C" result __wrap_##name parameters {                    \
    return Strikes(Call::call) ? -1 : __real_##name(__VA_ARGS__); \
  }

ZR_WRAP(kSocket, int, socket, (int a, int b, int c), a, b, c)
ZR_WRAP(kBind, int, bind, (int a, const sockaddr* b, socklen_t c), a, b, c)
ZR_WRAP(kListen, int, listen, (int a, int b), a, b)
ZR_WRAP(kAccept, int, accept4, (int a, sockaddr* b, socklen_t* c, int d), a, b, c, d)
ZR_WRAP(kConnect, int, connect, (int a, const sockaddr* b, socklen_t c), a, b, c)
ZR_WRAP(kSetOption, int, setsockopt, (int a, int b, int c, const void* d, socklen_t e), a, b, c, d,
        e)
ZR_WRAP(kGetOption, int, getsockopt, (int a, int b, int c, void* d, socklen_t* e), a, b, c, d, e)
ZR_WRAP(kOwnName, int, getsockname, (int a, sockaddr* b, socklen_t* c), a, b, c)
ZR_WRAP(kPeerText, int, getnameinfo,
        (const sockaddr* a, socklen_t b, char* c, socklen_t d, char* e, socklen_t f, int g), a, b,
        c, d, e, f, g)
ZR_WRAP(kSend, ssize_t, sendmsg, (int a, const msghdr* b, int c), a, b, c)
ZR_WRAP(kStatus, int, fstat, (int a, struct stat* b), a, b)
ZR_WRAP(kLook, int, stat, (const char* a, struct stat* b), a, b)
ZR_WRAP(kResize, int, ftruncate, (int a, off_t b), a, b)
ZR_WRAP(kWaitChild, pid_t, waitpid, (pid_t a, int* b, int c), a, b, c)
ZR_WRAP(kPipe, int, pipe2, (int* a, int b), a, b)
ZR_WRAP(kEvent, int, eventfd, (unsigned a, int b), a, b)
ZR_WRAP(kPollerMake, int, epoll_create1, (int a), a)
ZR_WRAP(kPollerChange, int, epoll_ctl, (int a, int b, int c, epoll_event* d), a, b, c, d)
ZR_WRAP(kPollerWait, int, epoll_wait, (int a, epoll_event* b, int c, int d), a, b, c, d)
ZR_WRAP(kPoll, int, poll, (pollfd * a, nfds_t b, int c), a, b, c)

ZR_WRAP(kSync, int, fsync, (int a), a)
ZR_WRAP(kRename, int, rename, (const char* a, const char* b), a, b)
ZR_WRAP(kOpen, int, open, (const char* a, int b, mode_t c), a, b, c)
ZR_WRAP(kControl, int, fcntl, (int a, int b, long c), a, b, c)
// openat2() and pidfd_open().
ZR_WRAP(kSystem, long, syscall, (long a, long b, long c, long d, long e, long f, long g), a, b, c,
        d, e, f, g)
ZR_WRAP(kOpen, int, mkostemp, (char* a, int b), a, b)
ZR_WRAP(kSpawn, pid_t, fork, ())

#define ZR_WRAP_MOVE(call, name, parameters, length, ...)                        \
  extern "C" ssize_t __real_##name parameters;                                   \
  extern "C" ssize_t __wrap_##name parameters;                                   \
  extern "C" ssize_t __wrap_##name parameters {                                  \
    return Moving(Call::call, length,                                            \
                  [&](std::size_t most) { return __real_##name(__VA_ARGS__); }); \
  }

ZR_WRAP_MOVE(kSend, send, (int a, const void* b, std::size_t c, int d), c, a, b, most, d)
ZR_WRAP_MOVE(kReceive, recv, (int a, void* b, std::size_t c, int d), c, a, b, most, d)
ZR_WRAP_MOVE(kSendFile, sendfile, (int a, int b, off_t* c, std::size_t d), d, a, b, c, most)
ZR_WRAP_MOVE(kRead, read, (int a, void* b, std::size_t c), c, a, b, most)
ZR_WRAP_MOVE(kReadAt, pread, (int a, void* b, std::size_t c, off_t d), c, a, b, most, d)
ZR_WRAP_MOVE(kWrite, write, (int a, const void* b, std::size_t c), c, a, b, most)
ZR_WRAP_MOVE(kWriteAt, pwrite, (int a, const void* b, std::size_t c, off_t d), c, a, b, most, d)

extern "C" {

void* __real_mmap(void* a, std::size_t b, int c, int d, int e, off_t f);
void* __wrap_mmap(void* a, std::size_t b, int c, int d, int e, off_t f);
void* __wrap_mmap(void* a, std::size_t b, int c, int d, int e, off_t f) {
  return Strikes(Call::kMap) ? MAP_FAILED : __real_mmap(a, b, c, d, e, f);
}

int __real_posix_spawn(pid_t* a, const char* b, const posix_spawn_file_actions_t* c,
                       const posix_spawnattr_t* d, char* const* e, char* const* f);
int __wrap_posix_spawn(pid_t* a, const char* b, const posix_spawn_file_actions_t* c,
                       const posix_spawnattr_t* d, char* const* e, char* const* f);
int __wrap_posix_spawn(pid_t* a, const char* b, const posix_spawn_file_actions_t* c,
                       const posix_spawnattr_t* d, char* const* e, char* const* f) {
  return Strikes(Call::kSpawn) ? zrtest::error.load() : __real_posix_spawn(a, b, c, d, e, f);
}

}  // extern "C"

#define ZR_START \
  "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
void RealStart(std::thread*, std::unique_ptr<std::thread::_State>,
               void (*)()) asm("__real_" ZR_START);
void WrappedStart(std::thread*, std::unique_ptr<std::thread::_State>,
                  void (*)()) asm("__wrap_" ZR_START);
void WrappedStart(std::thread* self, std::unique_ptr<std::thread::_State> state, void (*depend)()) {
  if (Strikes(Call::kThread)) throw std::system_error(errno, std::generic_category(), "thread");
  RealStart(self, std::move(state), depend);
}

void* operator new(std::size_t size) {
  void* const memory = Strikes(Call::kMemory) ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

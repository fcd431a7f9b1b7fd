#include "platform/thread.h"

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

#include "platform/posix/sigpipe.h"

namespace {

// The process in which the first thread was started; none at first.
std::atomic<pid_t> processOfThreads{0};

std::atomic<int> startsUntilFailure{0};

thread_local bool yields = false;

// Signals that a faulting instruction raises stay open: blocked, they would kill without a trace.
// SIGPROF stays open for profilers.
sigset_t AsynchronousSignals() {
  sigset_t set;
  sigfillset(&set);
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF})
    sigdelset(&set, number);
  return set;
}

// Blocks them on the starting thread for a scope: a new thread inherits the mask from its birth.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    const sigset_t set = AsynchronousSignals();
    pthread_sigmask(SIG_BLOCK, &set, &previous_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t previous_{};
};

void RunBody(const std::string& name, const std::function<void()>& body) noexcept {
  char cut[16] = {};
  zr::NoteSigPipeBlocked();
  std::strncpy(cut, name.c_str(), sizeof cut - 1);
  pthread_setname_np(pthread_self(), cut);
  try {
    body();
  } catch (...) {
    // Nobody is left to hear of it, and the host is not to be ended for it.
  }
}

}  // namespace

ZrThread ZrThread::Start(const char* name, std::function<void()> body) {
  const SignalsBlocked blocked;
  pid_t none = 0;
  processOfThreads.compare_exchange_strong(none, ::getpid());
  if (startsUntilFailure > 0 && --startsUntilFailure == 0)
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  ZrThread started;
  started.thread_ =
      std::thread([label = std::string(name), run = std::move(body)] { RunBody(label, run); });
  return started;
}

ZrThread& ZrThread::operator=(ZrThread&& other) noexcept {
  if (this != &other) {
    Join();
    thread_ = std::move(other.thread_);
  }
  return *this;
}

void ZrThread::Join() noexcept {
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id())
    thread_.detach();
  else
    thread_.join();
}

ZrThreadUse ZrThreadUse::Now() noexcept {
  timespec time{};
  rusage use{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  getrusage(RUSAGE_THREAD, &use);
  return {.cpuNs = std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec,
          .waits = use.ru_nvcsw,
          .preemptions = use.ru_nivcsw};
}

void zr::YieldToOthers() noexcept {
  constexpr int kNice = 10;
  setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kNice);
  yields = true;
}

bool zr::YieldsToOthers() noexcept { return yields; }

bool zr::IsForkOfThreads() noexcept {
  const pid_t process = processOfThreads;
  return process != 0 && process != ::getpid();
}

void zr::FailThreadStart(int number) noexcept { startsUntilFailure = number; }

// A host program around the shared library: loaded, started, stopped, unloaded, forked. The library
// is reached through dlopen alone, by the names that it exports.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "tests/e2e/served.h"
#include "tests/support/raw_client.h"
#include "tests/support/wait.h"

#ifdef __SANITIZE_ADDRESS__
// A child has none of the threads on whose stacks it stands what is in use: that is no leak.
static std::atomic<bool> forked = false;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return forked; }
#endif

namespace {

using namespace std::chrono_literals;
using namespace zrtest;

std::size_t ThreadCount() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

class Library {
 public:
  Library() : library_(dlopen(VELKORO_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) throw std::runtime_error(dlerror());
    Find(start, "_Z15StartHTTPServerPKciS0_S0_S0_S0_");
    Find(port, "_Z10ServerPortPv");
    Find(stop, "_Z14StopHTTPserverPv");
  }
  ~Library() { dlclose(library_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  /// A server that listens.
  void* Start() const {
    void* const handle = start("127.0.0.1", 0, ".", ".", TestCertificate().certificate.c_str(),
                               TestCertificate().privateKey.c_str());
    EXPECT_TRUE(WaitFor([&] { return port(handle) != 0; }));
    return handle;
  }

  void* (*start)(const char*, int, const char*, const char*, const char*, const char*) = nullptr;
  int (*port)(void*) = nullptr;
  int (*stop)(void*) = nullptr;

 private:
  template <class Function>
  void Find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(library_, name));
    ASSERT_NE(function, nullptr) << name;
  }
  void* library_;
};

/// The status of a GET of "/", "000" when there was no answer.
std::string StatusOf(int port) {
  return RunProgram(CurlWords({"-o", "/dev/null", "-w", "%{http_code}",
                               "https://127.0.0.1:" + std::to_string(port) + "/"}))
      .out;
}

TEST(Host, StartsServesStopsAndUnloads) {
  std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
  const std::size_t threads = ThreadCount();
  struct sigaction before {};
  sigaction(SIGPIPE, nullptr, &before);
  {
    const Library library;
    EXPECT_EQ(ThreadCount(), threads);  // loading starts none
    void* const first = library.Start();
    void* const second = library.Start();
    EXPECT_NE(library.port(first), library.port(second));
    EXPECT_EQ(StatusOf(library.port(first)), "404");  // it has no document directory
    EXPECT_EQ(StatusOf(library.port(second)), "404");
    EXPECT_EQ(library.stop(first), 0);
    EXPECT_EQ(StatusOf(library.port(second)), "404");
    EXPECT_EQ(library.stop(second), 0);
  }
  struct sigaction after {};
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
  // Gone for good: nothing pins it, and it left no thread behind.
  EXPECT_EQ(dlopen(VELKORO_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
}

TEST(Host, StaysLoadedWhileAHandleExists) {
  for (int round = 0; round < 20; ++round) {
    void* first = nullptr;
    void* second = nullptr;
    int port = 0;
    int (*stop)(void*) = nullptr;
    {
      const Library library;
      first = library.Start();
      second = library.Start();
      port = library.port(second);
      stop = library.stop;
    }
    EXPECT_EQ(StatusOf(port), "404");
    EXPECT_EQ(stop(first), 0);
    EXPECT_EQ(StatusOf(port), "404");
    EXPECT_EQ(stop(second), 0);  // takes the library with it
    EXPECT_EQ(dlopen(VELKORO_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
  }
}

TEST(Host, ALaterServerWithAnUnusableKeyPairDoesNotListen) {
  const TemporaryFolder folder;
  const std::string none = folder.Path("none");
  const Library library;
  const auto broken = [&] {
    return library.start("127.0.0.1", 0, ".", ".", none.c_str(), none.c_str());
  };
  EXPECT_THROW(broken(), std::exception);
  void* const first = library.Start();
  testing::internal::CaptureStderr();
  void* const second = broken();
  void* const third = library.Start();
  EXPECT_EQ(library.port(second), 0);
  for (void* const server : {second, third, first}) EXPECT_EQ(library.stop(server), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "(SSL) problem with SSL key pair: the server for \"" + none + "\" does not listen\n");
}

TEST(Host, StopsUnderLoadAHundredTimes) {
  const Library library;
  for (int round = 0; round < 100; ++round) {
    void* const handle = library.Start();
    const int port = library.port(handle);
    std::atomic<bool> loading = true;
    std::thread load([&] {
      // Handshakes begun, garbage, half-finished exchanges: all of it is cut off by the stop.
      while (loading) {
        RawClient client(port);
        if (client.Connected()) client.Send("\x16\x03\x01\x02");
      }
    });
    std::unique_ptr<BackgroundProgram> curl;
    if (round % 10 == 0) {
      curl = std::make_unique<BackgroundProgram>(
          CurlWords({"--parallel", "--fail-early",
                     "https://127.0.0.1:" + std::to_string(port) + "/[1-5000]"}));
      EXPECT_TRUE(WaitFor([&] { return !curl->Output().empty(); }));
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(library.stop(handle), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    loading = false;
    load.join();
  }
}

TEST(Host, ServesBehindElevenHundredOpenDescriptors) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> open;
  for (int i = 0; i < 1100; ++i) {
    open.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(open.back(), 0);
  }
  const Library library;
  void* const handle = library.Start();
  EXPECT_EQ(StatusOf(library.port(handle)), "404");
  EXPECT_EQ(library.stop(handle), 0);
  for (const int descriptor : open) close(descriptor);
}

TEST(Host, StartsInAChildOfTheProcessThatLoadedIt) {
  TestCertificate();
  const Library library;
  const pid_t child = fork();
  if (child == 0) {
    void* const handle = library.Start();
    const bool served = StatusOf(library.port(handle)) == "404";
    _exit(served && library.stop(handle) == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// What it writes to the standard streams must not land in a socket or file of its own.
TEST(Host, TakesNoStandardStreamThatItsHostHasClosed) {
  TestCertificate();
  const pid_t child = fork();
  if (child == 0) {
    for (const int stream : {0, 1, 2}) close(stream);
    int taken = 0;
    // A descriptor passes through such a number on its way to another.
    const auto isTaken = [](int stream) {
      for (int look = 0; look < 2000; ++look) {
        if (fcntl(stream, F_GETFD) < 0) return false;
        poll(nullptr, 0, 1);
      }
      return true;
    };
    const Library library;
    for (int round = 0; round < 2; ++round) {
      void* const handle = library.Start();
      for (int i = 0; i < 20; ++i) {
        RawClient client(library.port(handle));
        client.Send("\x16\x03\x01\x02");
        for (const int stream : {0, 1, 2}) taken += isTaken(stream) ? 1 : 0;
      }
      library.stop(handle);
    }
    _exit(taken);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

/// A thread that breaks off handshakes until the process ends.
void LoadForEver(int port, std::atomic<int>& turns) {
  std::thread([&turns, port] {
    for (;; ++turns) RawClient(port).Send("\x16\x03\x01\x02");
  }).detach();
}

// Whatever another thread holds at the moment of the fork stays held in the child for ever.
TEST(HostDeathTest, AForkedChildMayExit) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const auto forkUnderLoad = [] {
    static const auto* const library = new Library;
    static void* const handle = library->Start();
    const int port = library->port(handle);
    std::atomic<int> turns = 0;
    LoadForEver(port, turns);
    LoadForEver(port, turns);
    const BackgroundProgram curl(
        CurlWords({"--parallel", "-o", "/dev/null",
                   "https://127.0.0.1:" + std::to_string(port) + "/[1-100000000]"}));
    WaitFor([&turns] { return turns >= 20; });
    fflush(nullptr);  // an exit would write it once more
    int failures = 0;
    const auto end = std::chrono::steady_clock::now() + 10s;
    // Hundreds of times; on a machine that is busy otherwise, twenty.
    const auto goesOn = [end](int i) {
      return i < 20 || (i < 400 && std::chrono::steady_clock::now() < end);
    };
    for (int i = 0; goesOn(i) && failures == 0; ++i) {
      const pid_t child = fork();
      if (child == 0) {
#ifdef __SANITIZE_ADDRESS__
        forked = true;
#endif
        // A host may stop what it holds on its way out.
        if (i % 2 == 0 && library->stop(handle) != 0) _exit(1);
#ifdef __SANITIZE_THREAD__
        _exit(0);  // one of the checker's own locks may be held, and the heap needs it
#endif
        std::exit(0);
      }
      int status = -1;
      if (!WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; })) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
      }
      failures += status == 0 ? 0 : 1;
    }
    std::_Exit(failures == 0 && RawClient(port).Connected() ? 7 : 8);
  };
  EXPECT_EXIT(forkUnderLoad(), testing::ExitedWithCode(7), "");
}

TEST(HostDeathTest, MayExitWithoutAStop) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const auto exitUnderLoad = [] {
    static const auto* const library = new Library;  // never unloaded
    static void* const handle = library->Start();    // never stopped
    const int port = library->port(handle);
    std::atomic<int> turns = 0;
    LoadForEver(port, turns);
    LoadForEver(port, turns);
    std::exit(WaitFor([&turns] { return turns >= 200; }) && StatusOf(port) == "404" ? 7 : 8);
  };
  EXPECT_EXIT(exitUnderLoad(), testing::ExitedWithCode(7), "");
}

}  // namespace

// The layer inside a library that a host loads, unloads, forks with, and leaves without a stop.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>

#include "tests/support/wait.h"

namespace {

using Function = bool (*)();

void* Load() { return dlopen(ZR_UNLOADED_LIBRARY, RTLD_NOW | RTLD_LOCAL); }

Function Find(void* library, const char* name) {
  return reinterpret_cast<Function>(dlsym(library, name));
}

std::ptrdiff_t ThreadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

TEST(Unload, NoThreadAndNoLibraryStays) {
  std::thread([] {}).join();  // the first thread of a sanitizer's program starts a second one
  for (int round = 0; round < 5; ++round) {
    const auto before = ThreadCount();
    void* const library = Load();
    ASSERT_TRUE(library) << dlerror();
    EXPECT_EQ(ThreadCount(), before) << "loading starts no thread";
    EXPECT_TRUE(Find(library, "UseJobs")());
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlopen(ZR_UNLOADED_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is unmapped";
    // The kernel takes a joined thread off the list a moment after the join.
    EXPECT_TRUE(zrtest::WaitFor([before] { return ThreadCount() == before; }));
  }
}

TEST(Unload, AChildForkedAfterTheLoadWorks) {
  void* const library = Load();
  ASSERT_TRUE(library) << dlerror();
  const pid_t child = fork();
  if (child == 0) _exit(Find(library, "UseJobs")() ? 7 : 8);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
  dlclose(library);
}

TEST(UnloadDeathTest, AHostMayExitWithoutAStop) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(std::exit(Find(Load(), "LeaveJobsRunning")() ? 7 : 8), testing::ExitedWithCode(7),
              "");
}

}  // namespace

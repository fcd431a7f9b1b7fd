#include "platform/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

namespace {

TEST(Thread, HostSignalsAreForHostThreads) {
  sigset_t inThread;
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  ZrThread::Start("signals", [&inThread] {
    pthread_sigmask(SIG_SETMASK, nullptr, &inThread);
  }).Join();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (const int number : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP}) {
    EXPECT_EQ(sigismember(&inThread, number), 1) << number;
    EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
  }
  EXPECT_EQ(sigismember(&inThread, SIGSEGV), 0);
}

}  // namespace

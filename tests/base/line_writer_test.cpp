#include "base/line_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "tests/support/captured.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait.h"

namespace {

using namespace std::chrono_literals;

/// A queue to a FIFO that is read when the test likes.
class Fifo {
 public:
  Fifo() {
    EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    ZrLineSink sink;
    EXPECT_EQ(ZrLineSink::OpenFile(path_, sink), 0);
    queue_ = ZrLineWriter::Instance().Open(std::move(sink), "the fifo");
  }
  ~Fifo() {
    ZrLineWriter::Instance().Close(*queue_);
    ::close(reader_);
  }
  ZrLineQueue& Lines() { return *queue_; }
  /// What there is, until the queue has nothing left.
  std::string ReadAll() {
    if (reader_ < 0) {
      reader_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK);
      ::fcntl(reader_, F_SETPIPE_SZ, 1 << 20);
    }
    char block[65536];
    const auto drain = [&] {
      pollfd ready{reader_, POLLIN, 0};
      ::poll(&ready, 1, 10);
      for (ssize_t count; (count = ::read(reader_, block, sizeof block)) > 0;) {
        text_.append(block, static_cast<std::size_t>(count));
      }
    };
    EXPECT_TRUE(zrtest::WaitFor([&] {
      drain();
      return queue_->Flush(0ms);
    }));
    drain();
    return std::move(text_);
  }

 private:
  zrtest::TemporaryFolder folder_;
  const std::string path_ = folder_.Path("fifo");
  std::shared_ptr<ZrLineQueue> queue_;
  int reader_ = -1;
  std::string text_;
};

TEST(LineWriter, ASinkThatTakesNothingLosesWholeLinesOfAnyThreadAndSaysHowMany) {
  constexpr int kLines = 50;
  Fifo fifo;
  const auto push = [&fifo](char letter) {
    for (int i = 0; i < kLines; ++i) fifo.Lines().Push(std::string(100 * 1024, letter));
  };
  push('z');  // more than is kept while nobody reads
  std::string text;
  {
    std::vector<std::jthread> writers;
    for (char letter = 'a'; letter < 'i'; ++letter) writers.emplace_back(push, letter);
    text = fifo.ReadAll();
  }
  std::istringstream all(text + fifo.ReadAll());
  std::uint64_t lost = 0;
  std::uint64_t whole = 0;
  for (std::string line; std::getline(all, line);) {
    if (line.starts_with("velkoro: ")) {
      lost += std::stoul(line.substr(9));
    } else {
      ++whole;
      ASSERT_TRUE(line == std::string(100 * 1024, line.at(0))) << line.size();
    }
  }
  EXPECT_EQ(whole + lost, 9u * kLines);
  EXPECT_TRUE(whole > 0 && lost > 0) << whole;
  EXPECT_TRUE(fifo.Lines().Push("again"));
  EXPECT_EQ(fifo.ReadAll(), "again\n");
}

/// A queue to a file of its own.
class LogFile {
 public:
  LogFile() {
    ZrLineSink sink;
    EXPECT_EQ(ZrLineSink::OpenFile(path_, sink), 0);
    queue_ = ZrLineWriter::Instance().Open(std::move(sink), "the log");
  }
  ~LogFile() { ZrLineWriter::Instance().Close(*queue_); }
  ZrLineQueue& Lines() { return *queue_; }
  void Push(const std::string& line) {
    queue_->Push(line);
    pushed_ += line + "\n";
  }
  /// Whether the file has what was pushed, and nothing else.
  bool HasAll() const { return zrtest::ReadFile(path_) == pushed_; }

 private:
  zrtest::TemporaryFolder folder_;
  const std::string path_ = folder_.Path("log");
  std::shared_ptr<ZrLineQueue> queue_;
  std::string pushed_;
};

TEST(LineWriter, ARestOfItsThreadLosesNoLine) {
  LogFile log;
  std::atomic<bool> over = false;
  std::jthread writer([&] {
    for (int i = 0; i < 3000; ++i) {
      log.Push(std::to_string(i));
      if (i % 10 == 0) log.Lines().Flush(10s);
    }
    over = true;
  });
  while (!over) ZrLineWriter::Instance().Rest();
  writer.join();
  EXPECT_TRUE(log.Lines().Flush(10s));
  EXPECT_TRUE(log.HasAll());
}

// In the pause behind the batch before, and in the silence behind that.
TEST(LineWriter, ALineComesWithoutAnybodyWhoAsksForIt) {
  LogFile log;
  for (int i = 0; i < 16; ++i) {
    log.Push(std::to_string(i));
    ASSERT_TRUE(zrtest::WaitFor([&] { return log.HasAll(); }));
    ASSERT_TRUE(i % 4 < 2 || zrtest::WaitFor([&] { return log.Lines().IsQuiet(); }));
  }
}

TEST(LineWriter, AFullDiskIsSaidOnce) {
  testing::internal::CaptureStderr();
  ZrLineSink sink;
  ASSERT_EQ(ZrLineSink::OpenFile("/dev/full", sink), 0);
  const auto queue = ZrLineWriter::Instance().Open(std::move(sink), "the log");
  for (int i = 0; i < 3; ++i) {
    queue->Push("line");
    EXPECT_TRUE(queue->Flush(10s));
  }
  const zrtest::TemporaryFolder folder;
  ASSERT_EQ(ZrLineSink::OpenFile(folder.Path("log"), sink), 0);
  queue->Replace(std::move(sink));
  queue->Push("kept");
  EXPECT_TRUE(queue->Flush(10s));
  EXPECT_EQ(zrtest::ReadFile(folder.Path("log")),
            "velkoro: 3 lines were lost here, nothing took them\nkept\n");
  ZrLineWriter::Instance().Close(*queue);
  EXPECT_EQ(zrtest::CapturedErrors(),
            "velkoro: the log takes no more lines: No space left on device; they are lost until it "
            "does\n");
}

TEST(LineWriter, DiagnosticsAreSafeLinesAndAFewOfAKind) {
  testing::internal::CaptureStderr();
  zr::WriteDiagnostic("kind", "reset \x1b[2J by\nsomebody");
  EXPECT_EQ(zrtest::CapturedErrors(), "reset \\x1B[2J by\\x0Asomebody\n");
  Fifo fifo;
  for (int i = 0; i < 849; ++i) fifo.Lines().PushOfKind("reset", "a reset");
  fifo.Lines().PushOfKind("other", "other");
  std::string text;
  EXPECT_TRUE(zrtest::WaitFor([&] { return (text += fifo.ReadAll()).ends_with("left out\n"); }));
  std::string expected;
  for (int i = 0; i < 5; ++i) expected += "a reset\n";
  EXPECT_EQ(text, expected + "other\nvelkoro: 844 more lines like \"reset\" were left out\n");
}

TEST(LineWriterDeathTest, WritesWithoutDescriptors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process without the writer's thread
  const auto writeAndExit = [] {
    const rlimit none{3, 3};
    ::setrlimit(RLIMIT_NOFILE, &none);
    zr::WriteErrorLine("a line");
    std::_Exit(0);
  };
  EXPECT_EXIT(writeAndExit(), testing::ExitedWithCode(0), "^a line\n$");
}

}  // namespace

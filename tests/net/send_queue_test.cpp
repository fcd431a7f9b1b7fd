#include "net/send_queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "tests/support/scripted_line.h"
#include "tests/support/temporary_folder.h"

namespace {

using Files = ZrSendQueue::Files;
using Sent = ZrSendQueue::Sent;
using zrtest::ScriptedLine;

const zrtest::TemporaryFolder& Folder() {
  static const zrtest::TemporaryFolder folder;
  return folder;
}

// Has the system forget what it holds of a file, where its file system can.
void DropFromMemory(const std::string& path) {
  const ZrDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  fdatasync(file.Get());
  posix_fadvise(file.Get(), 0, 0, POSIX_FADV_DONTNEED);
}

// Bytes, a file behind a head, and bytes again.
void Fill(ZrSendQueue& queue, std::uint64_t ofFile) {
  queue.Add(ZrStringBuf("head|"));
  queue.AddFile(ZrFile::Open(Folder().Write("file", "0123456789")), 2, ofFile);
  queue.Add(ZrStringBuf());
  queue.Add(ZrStringBuf("|tail"));
}

TEST(SendQueue, SendsInOrderWhateverTheLineTakes) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, ScriptedLine::kUnlimited}) {
    ScriptedLine line;
    line.piece = piece;
    ZrSendQueue queue;
    Fill(queue, 8);
    EXPECT_EQ(queue.Bytes(), 18u);
    Sent sent = Sent::kSome;
    std::size_t count = 0;
    for (int call = 0; call < 100 && queue.Pending(); ++call) {
      sent = queue.SendFront(line, count);
      EXPECT_TRUE(sent == Sent::kSome || sent == Sent::kRefused);
    }
    EXPECT_EQ(line.output, "head|23456789|tail");
    EXPECT_EQ(queue.SendFront(line, count), Sent::kAll);
  }
}

// As TLS takes them.
TEST(SendQueue, ShowsPiecesOfAFileAndDropsWhatWasTaken) {
  for (const Files files : {Files::kMayWait, Files::kAtHand}) {
    ZrSendQueue queue;
    Fill(queue, 8);
    std::string taken;
    std::array<char, 5> space;
    for (std::size_t most = 1; queue.Pending(); most = most % 5 + 1) {
      const ZrSendQueue::Oldest oldest = queue.Front(space, files);
      ASSERT_EQ(oldest.kind, ZrSendQueue::Oldest::Kind::kBytes);
      taken += oldest.bytes.substr(0, most);
      queue.Consume(std::min(most, oldest.bytes.size()));
    }
    EXPECT_EQ(taken, "head|23456789|tail");
    EXPECT_EQ(queue.Front(space, files).kind, ZrSendQueue::Oldest::Kind::kNone);
  }
}

TEST(SendQueue, WaitsForNoDiskWhereItMustNot) {
  const std::string bytes(300'000, 'x');
  const std::string path = Folder().Write("cold", bytes);
  ZrSendQueue queue;
  queue.AddFile(ZrFile::Open(path), 0, bytes.size());
  ScriptedLine line;
  std::size_t count = 0;
  DropFromMemory(path);
  const Sent cold = queue.SendFront(line, count, Files::kAtHand);
  EXPECT_TRUE(cold == Sent::kNotAtHand ? count == 0 : cold == Sent::kSome);  // not forgotten
  while (queue.SendFront(line, count) == Sent::kSome) continue;
  EXPECT_TRUE(line.output == bytes);

  queue.AddFile(ZrFile::Open(path), 0, bytes.size() + 1);
  Sent sent = Sent::kSome;
  while (sent == Sent::kSome) sent = queue.SendFront(line, count, Files::kAtHand);
  EXPECT_EQ(sent, Sent::kCut);
  EXPECT_TRUE(line.output == bytes + bytes);
}

TEST(SendQueue, TellsRefusalDeathAndAShortFileApart) {
  std::size_t count = 0;
  ScriptedLine line;
  ZrSendQueue queue;
  Fill(queue, 9);
  line.room = 2;
  EXPECT_EQ(queue.SendFront(line, count), Sent::kRefused);
  EXPECT_EQ(count, 2u);
  line.room = ScriptedLine::kUnlimited;
  for (const Sent expected : {Sent::kSome, Sent::kRefused, Sent::kCut, Sent::kAll}) {
    EXPECT_EQ(queue.SendFront(line, count), expected);
  }
  EXPECT_EQ(line.output, "head|23456789");

  std::array<char, 4> space;
  queue.AddFile(ZrFile::Open(Folder().Path("file")), 10, 1);
  EXPECT_EQ(queue.Front(space, Files::kMayWait).kind, ZrSendQueue::Oldest::Kind::kCut);
  EXPECT_FALSE(queue.Pending());

  Fill(queue, 1);
  line.failSendAt = line.sends + 1;
  EXPECT_EQ(queue.SendFront(line, count), Sent::kDead);
  EXPECT_EQ(queue.SendFront(line, count), Sent::kDead);
}

}  // namespace

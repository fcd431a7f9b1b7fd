#include "net/send_queue.h"

#include <gtest/gtest.h>

#include "tests/support/scripted_line.h"
#include "tests/support/temporary_folder.h"

namespace {

using Sent = ZrSendQueue::Sent;
using zrtest::ScriptedLine;

const zrtest::TemporaryFolder& Folder() {
  static const zrtest::TemporaryFolder folder;
  return folder;
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

TEST(SendQueue, TellsRefusalDeathAndAShortFileApart) {
  std::size_t count = 0;
  ScriptedLine line;
  ZrSendQueue queue;
  Fill(queue, 9);
  line.room = 2;
  EXPECT_EQ(queue.SendFront(line, count), Sent::kRefused);
  EXPECT_EQ(count, 2u);
  line.room = ScriptedLine::kUnlimited;
  for (const Sent expected : {Sent::kSome, Sent::kSome, Sent::kCut, Sent::kAll}) {
    EXPECT_EQ(queue.SendFront(line, count), expected);
  }
  EXPECT_EQ(line.output, "head|23456789");

  queue.AddFile(ZrFile::Open(Folder().Path("file")), 10, 1);
  EXPECT_FALSE(queue.Front().has_value() || queue.Pending());

  Fill(queue, 1);
  line.failSendAt = line.sends + 1;
  EXPECT_EQ(queue.SendFront(line, count), Sent::kDead);
  EXPECT_EQ(queue.SendFront(line, count), Sent::kDead);
}

}  // namespace

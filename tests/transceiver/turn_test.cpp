#include "transceiver/turn.h"

#include <gtest/gtest.h>

#include <random>

namespace {

// Whatever comes in whatever order: one item at a time, every byte once and in order, and when
// everybody whom the turn sent for has come, nothing is left.
TEST(Turn, SomebodyAlwaysComesForTheBytes) {
  for (unsigned seed = 0; seed < 2000; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    ZrSendQueue output;
    ZrTurn turn(output);
    std::string sent;
    std::string taken;
    int coming = 0;  // how often the server was told and has not come yet
    bool inItem = false;
    const auto end = [&] {
      bool resume = false;
      const ZrTurn::After after = turn.End(resume);
      EXPECT_NE(after, ZrTurn::After::kClose);
      coming += after == ZrTurn::After::kWake ? 1 : 0;
      inItem = false;
    };
    const auto drain = [&] {
      output.Clear();
      coming += turn.OutputWent() ? 1 : 0;
    };
    const auto come = [&] {
      --coming;
      if (!turn.Begin()) return;
      EXPECT_FALSE(inItem);
      inItem = true;
      ZrStringBuf bytes;
      turn.Take(bytes);
      if (bytes.Size() > 3 && random() % 2 == 0) {
        taken += bytes.Unread().substr(0, 3);
        bytes.Consume(3);
        turn.PutBack(bytes);
      } else {
        taken += bytes.Unread();
      }
    };
    for (int step = 0; step < 60; ++step) {
      const auto chance = random() % 5;
      if (chance == 0) {
        const std::string bytes(1 + random() % 5, static_cast<char>('a' + step % 26));
        sent += bytes;
        coming += turn.Receive(bytes) ? 1 : 0;
      }
      if (chance == 1 && coming > 0) come();
      if (chance == 2 && inItem) end();
      if (chance == 3) output.Add(ZrStringBuf(std::string(ZrTurn::kOutputMark + 1, 'x')));
      if (chance == 4) drain();
    }
    for (int left = 0; left < 200 && (inItem || coming > 0 || output.Pending()); ++left) {
      if (output.Pending()) drain();
      if (inItem) end();
      if (coming > 0) come();
    }
    EXPECT_EQ(taken, sent);
    EXPECT_FALSE(turn.HasBytes() || turn.InItem());
  }
}

TEST(Turn, ThePeersEndAndTheClosing) {
  ZrSendQueue output;
  ZrStringBuf bytes;
  bool resume = false;
  ZrTurn turn(output);
  turn.Receive(std::string(ZrTurn::kReadMark + 1, 'x'));
  EXPECT_TRUE(turn.PauseWhenFull());
  ASSERT_TRUE(turn.Begin());
  EXPECT_FALSE(turn.Take(bytes));  // some of them may come back
  turn.Receive("more");
  turn.End(resume);
  EXPECT_TRUE(resume);
  ASSERT_TRUE(turn.Begin());
  EXPECT_TRUE(turn.EndInput());  // what was asked for before is answered
  turn.Take(bytes);
  EXPECT_EQ(turn.End(resume), ZrTurn::After::kClose);
  EXPECT_FALSE(resume);
  for (const bool asks : {false, true}) {
    ZrTurn closing(output);
    if (asks) closing.BecomeAsking();
    closing.Receive(std::string(ZrTurn::kReadMark + 1, 'x'));
    EXPECT_TRUE(closing.PauseWhenFull());
    closing.Close();
    EXPECT_FALSE(closing.PauseWhenFull());
    EXPECT_EQ(closing.HasBytes(), asks);
    EXPECT_FALSE(closing.Receive("y") || closing.Begin());
  }
}

}  // namespace

#include "transceiver/turn.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using State = ZrTurn::State;

// Each cell: the next state and what is to be done. Capital letters for the states without an item.
constexpr std::string_view kStateNames = "IAHbahLlC";
constexpr std::string_view kEffectNames = ".GR!WrSD";
constexpr const char* kRows[] = {
    // Received Begin Full Taken PutBack End EndFull OutputGone CloseAfter Close
    "A! bG IR I. H. Ir Ir I. L. C.",  // idle
    "A. hG HR I. A. A. A. A. L. C.",  // announced
    "H. hG HR I. H. AW H. A! L. C.",  // held
    "a! bR bR b. h. Ir Ir b. l. C.",  // busy
    "a. hR hR b. h. A. A. a. l. C.",  // busy, announced
    "h. hR hR b. h. AW H. h. l. C.",  // busy, held
    "L! lG lG L. L. LS LS L. L. C.",  // the next is the last
    "l. lR lR l. l. LS LS l. l. C.",  // this is the last
    "CD CR CR C. CD C. C. C. C. C.",  // closing
};

TEST(Turn, EveryEventInEveryState) {
  for (std::size_t state = 0; state < ZrTurn::kStates; ++state) {
    std::string row;
    for (std::size_t event = 0; event < ZrTurn::kEvents; ++event) {
      const auto next = ZrTurn::Next(State(state), ZrTurn::Event(event));
      row += event == 0 ? "" : " ";
      row += kStateNames[static_cast<std::size_t>(next.next)];
      row += kEffectNames[static_cast<std::size_t>(next.effect)];
    }
    EXPECT_EQ(row, kRows[state]) << kStateNames[state];
  }
}

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
      switch (random() % 5) {
        case 0: {
          const std::string bytes(1 + random() % 5, static_cast<char>('a' + step % 26));
          sent += bytes;
          coming += turn.Receive(bytes) ? 1 : 0;
          break;
        }
        case 1:
          if (coming > 0) come();
          break;
        case 2:
          if (inItem) end();
          break;
        case 3:
          output.Add(ZrStringBuf(std::string(ZrTurn::kOutputMark + 1, 'x')));
          break;
        case 4:
          drain();
          break;
      }
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

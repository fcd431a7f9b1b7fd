#include "transceiver/turn.h"

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <random>
#include <string>

namespace {

using Event = ZrTurn::Event;
using Effect = ZrTurn::Effect;
using After = ZrTurn::After;

// What each state says of the connection; the last ones do not count their bytes.
struct Said {
  const char* name;
  bool item = false, bytes = false, told = false, last = false, closing = false;
};
constexpr std::array<Said, ZrTurn::kStates> kSaid = {
    {{.name = "kIdle"},
     {.name = "kAnnounced", .bytes = true, .told = true},
     {.name = "kHeld", .bytes = true},
     {.name = "kBusy", .item = true},
     {.name = "kBusyAnnounced", .item = true, .bytes = true, .told = true},
     {.name = "kBusyHeld", .item = true, .bytes = true},
     {.name = "kLast", .last = true},
     {.name = "kLastBusy", .item = true, .last = true},
     {.name = "kClosing", .closing = true}}};
constexpr std::array<const char*, ZrTurn::kEvents> kEventNames = {
    "kReceived", "kBegin",   "kBeginFull",  "kTaken",      "kPutBack",
    "kEnd",      "kEndFull", "kOutputGone", "kCloseAfter", "kClose"};

void ExpectRules(const Said& from, Event event, const Said& to, Effect effect) {
  const bool comes = event == Event::kReceived || event == Event::kPutBack;
  const bool begins = event == Event::kBegin || event == Event::kBeginFull;
  const bool ends = event == Event::kEnd || event == Event::kEndFull;
  const bool nobody = from.bytes && !from.told;
  Effect due = Effect::kNone;
  if (begins) {
    const bool full = event == Event::kBeginFull && !from.last;
    due = full || from.item || from.closing ? Effect::kRefuse : Effect::kGrant;
  }
  if (event == Event::kReceived && !from.bytes && !(from.last && from.item))
    due = Effect::kAnnounce;
  if (comes && from.closing) due = Effect::kDrop;
  if (ends && !from.bytes && !from.closing) due = from.last ? Effect::kShut : Effect::kRest;
  if (event == Event::kEnd && nobody) due = Effect::kWake;
  if (event == Event::kOutputGone && nobody && !from.item) due = Effect::kAnnounce;
  EXPECT_EQ(static_cast<int>(effect), static_cast<int>(due));
  // Closing is for good, and the last item stays the last.
  EXPECT_EQ(to.closing, from.closing || event == Event::kClose);
  EXPECT_EQ(to.last, !to.closing && (from.last || event == Event::kCloseAfter));
  // Only a grant begins an item; it is in progress until it ends.
  EXPECT_EQ(to.item, !to.closing && (effect == Effect::kGrant || (from.item && !ends)));
  if (to.last || to.closing) return;
  EXPECT_EQ(to.bytes, comes || (from.bytes && event != Event::kTaken));
  // Who was told is on the way until he has asked, or the bytes are those of an item.
  const bool stays = from.told && !begins && !(from.item && event == Event::kPutBack);
  const bool tells = effect == Effect::kAnnounce || effect == Effect::kWake;
  EXPECT_EQ(to.told, to.bytes && (stays || tells));
}

TEST(Turn, TheRulesHoldInEveryState) {
  for (std::uint8_t state = 0; state < ZrTurn::kStates; ++state) {
    for (std::uint8_t event = 0; event < ZrTurn::kEvents; ++event) {
      const auto [next, effect] = ZrTurn::Next(ZrTurn::State{state}, Event{event});
      const Said& to = kSaid.at(static_cast<std::size_t>(next));
      SCOPED_TRACE(std::string(kSaid[state].name) + ", " + kEventNames[event] + ": " + to.name);
      ExpectRules(kSaid[state], Event{event}, to, effect);
    }
  }
}

// Plays the letters of a walk and writes what the caller is told behind each: + yes, - no,
// . nothing to do, ~ wake, ! close.
std::string Walked(std::string_view walk) {
  ZrSendQueue output;
  ZrTurn turn(output);
  ZrStringBuf bytes;
  bool resume = false;
  std::string seen;
  const auto say = [&seen](bool yes) { seen += yes ? '+' : '-'; };
  const auto end = [&seen](After after) { seen += ".~!"[static_cast<int>(after)]; };
  for (const char step : walk) {
    if (std::isalpha(step)) seen += step;
    if (step == 'r') say(turn.Receive("x"));
    if (step == 'b') say(turn.Begin());
    if (step == 't') turn.Take(bytes);
    if (step == 'p') turn.PutBack(bytes);
    if (step == 'e') end(turn.End(resume));
    if (step == 'l') turn.CloseAfterItem();
    if (step == 'L') end(turn.EndAndClose(turn.Item(), resume));
    if (step == 'O') end(turn.EndAndClose(turn.Item() - 1, resume));  // an item before that
    if (step == 'c') turn.Close();
    if (step == 'f') output.Add(ZrStringBuf(std::string(ZrTurn::kOutputMark + 1, 'x')));
    if (step == 'g') output.Clear(), say(turn.OutputWent());
  }
  return seen;
}

TEST(Turn, Walks) {
  for (const char* walk : {
           "r+r-b+tb-e.b+e.",        // one item at a time
           "r+b+tpe~b+te.r+b+e~",    // what the item left, or did not take, is the next one
           "r+b+tr+e.b+te.",         // somebody was told meanwhile,
           "r+b+tr+b-r-e~b+te.",     // came too early,
           "r+b+tr+tr+pr-e~b+",      // or for bytes that went with the item
           "fr+b-r-g+b+tfb-e.",      // no item while output is full
           "r+b+tpfe.b-tg-r+b+",     // nobody is told of bytes that have gone
           "r+b+lr-b-fe!g-",         // the last item, bytes behind it or not,
           "lfr+r+b+tpb-r-g-e!",     // which begins although output is full
           "fr+b-L!",                // ... or not at all
           "r+b+te.r+b+O.tr-e!L!",   // one that ends the connection behind the next
           "lr+b+ctr-pb-r-e.lL.g-",  // closing is for good
       }) {
    EXPECT_EQ(Walked(walk), walk);
  }
}

// Whatever comes in whatever order: one item at a time, every byte once and in order, and when
// everybody whom the turn sent for has come, nothing is left but what came behind the last item.
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
    bool last = false;
    const auto end = [&] {
      bool resume = false;
      const After after = turn.End(resume);
      EXPECT_EQ(after == After::kClose, last && !turn.IsClosing());
      coming += after == After::kWake ? 1 : 0;
      inItem = false;
      if (after == After::kClose) turn.Close();
    };
    const auto drain = [&] {
      output.Clear();
      coming += turn.OutputWent() ? 1 : 0;
    };
    const auto come = [&] {
      --coming;
      if (!turn.Begin()) return;
      EXPECT_FALSE(inItem || turn.IsClosing());
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
      if (inItem && seed % 4 == 1 && random() % 20 == 0) last = (turn.CloseAfterItem(), true);
      if (seed % 4 == 2 && random() % 40 == 0) turn.Close();
    }
    for (int left = 0; left < 200 && (inItem || coming > 0 || output.Pending()); ++left) {
      if (output.Pending()) drain();
      if (inItem) end();
      if (coming > 0) come();
    }
    EXPECT_EQ(taken, sent.substr(0, turn.IsClosing() ? taken.size() : sent.size()));
    EXPECT_TRUE(turn.IsClosing() || !last);
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
  EXPECT_EQ(turn.End(resume), After::kClose);
  EXPECT_FALSE(resume);
  for (const bool asks : {false, true}) {
    ZrTurn closing(output);
    if (asks) closing.BecomeAsking();
    closing.Receive(std::string(ZrTurn::kReadMark + 1, 'x'));
    EXPECT_TRUE(closing.PauseWhenFull());
    closing.Close();
    EXPECT_FALSE(closing.PauseWhenFull());
    EXPECT_EQ(closing.HasBytes(), asks);
  }
}

}  // namespace

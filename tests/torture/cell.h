#pragma once
// The names of the matrix: moments of an exchange, and what a peer does in them.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "tests/torture/bed.h"
#include "tests/torture/line.h"

namespace zrtest {

/// How far an exchange is; in the order of an exchange.
enum class Moment {
  kConnected,
  kHandshake,
  kFlight,
  kSecured,
  kHead,
  kBody,
  kWaiting,
  kFirst,
  kLast,
  kIdle
};
inline constexpr const char* kMomentNames[] = {
    "connected", "handshake", "flight sent", "secured",    "head",
    "body",      "waiting",   "first bytes", "last bytes", "idle"};

/// What the peer does then.
enum class Act {
  kFin,
  kNotify,
  kNotifyReset,
  kPartial,
  kReset,
  kSilence,
  kTrickle,
  kGarbage,
  kFlood,
  kKeyUpdates
};
inline constexpr const char* kActNames[] = {
    "FIN",   "close_notify", "close_notify and RST", "part of a record and FIN",
    "RST",   "silence",      "one byte a second",    "garbage",
    "flood", "key updates"};

inline Act Next(Act act) { return static_cast<Act>(static_cast<int>(act) + 1); }

/// Whether this peer can do that at this moment at all.
inline bool IsPossible(Wire wire, Moment moment, Act act) {
  const bool secured = moment >= Moment::kSecured;
  if (wire == Wire::kPlain) {
    return moment != Moment::kHandshake && moment != Moment::kFlight &&
           moment != Moment::kSecured && act != Act::kNotify && act != Act::kNotifyReset &&
           act != Act::kPartial && act != Act::kKeyUpdates;
  }
  // Behind half a record everything is the rest of it.
  if (act == Act::kNotify && moment == Moment::kHandshake) return false;
  if (act == Act::kPartial) return secured;
  // They take long to make: elsewhere under --torture only.
  if (act == Act::kKeyUpdates) {
    return wire == Wire::kTls13 && (moment == Moment::kSecured || moment == Moment::kWaiting ||
                                    moment == Moment::kIdle || (secured && Torture()));
  }
  return true;
}

/// The acts that are the same on every line; false for the others.
inline bool ActOnLine(Line& line, Act act, Wire wire) {
  switch (act) {
    case Act::kFin:
      line.FinishSending();
      return true;
    case Act::kNotify:
      line.CloseNotify();
      return true;
    case Act::kNotifyReset:
      line.CloseNotify();
      line.Reset();
      return true;
    case Act::kReset:
      line.Reset();
      return true;
    case Act::kPartial: {
      const std::string record = wire == Wire::kTls13 ? line.KeyUpdates(1) : line.Seal("x");
      line.SendRaw(record.substr(0, record.size() - 1));
      line.FinishSending();
      return true;
    }
    case Act::kGarbage: {
      std::string garbage;
      for (int i = 0; i < 600; ++i) garbage.push_back(static_cast<char>(i * 7 + i / 3));
      line.SendRaw(garbage);
      return true;
    }
    case Act::kKeyUpdates:
      // All at once, so that reading one record finds the next.
      line.SendRaw(line.KeyUpdates(Torture() ? 1'000'000 : 20'000));
      return true;
    default:
      return false;
  }
}

/// Runs a cell in the bed, when its name has VELKORO_CELL in it; one that left something behind
/// gets the next cell a fresh bed.
template <class Body>
void RunCell(std::unique_ptr<TortureBed>& bed, const std::string& name, Body body) {
  const char* const only = std::getenv("VELKORO_CELL");
  if (only != nullptr && name.find(only) == std::string::npos) return;
  if (!bed) bed = std::make_unique<TortureBed>();
  const std::string wrong = bed->RunCell([&] { return body(*bed); });
  if (wrong.empty()) return;
  ADD_FAILURE() << name << ": " << wrong;
  bed.reset();
}

}  // namespace zrtest

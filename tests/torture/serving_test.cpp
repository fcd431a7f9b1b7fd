// What clients can do to our servers. Every cell of the matrix gets a client into a moment of an
// exchange and has it misbehave there; afterwards nothing may be left, and another client may not
// have noticed.

#include <gtest/gtest.h>

#include "http/protocol_kind.h"
#include "tests/support/wait.h"
#include "tests/torture/cell.h"

namespace {

using namespace zrtest;
using std::chrono::milliseconds;
using std::chrono::seconds;

enum class Thing { kFile, kPage, kProgram, kMissing, kRaw };
constexpr const char* kThingNames[] = {"file", "page", "program", "404", "raw"};

struct Cell {
  Wire wire;
  Moment moment;
  Act act;
  Thing thing;
};

std::string NameOf(const Cell& cell) {
  return std::string(kMomentNames[static_cast<int>(cell.moment)]) + " / " +
         kActNames[static_cast<int>(cell.act)] + " / " + kThingNames[static_cast<int>(cell.thing)];
}

/// One client in one cell.
class Client {
 public:
  Client(TortureBed& bed, const Cell& cell)
      : bed_(bed),
        cell_(cell),
        gate_(bed.GatePath()),
        line_(bed.Port(cell.thing == Thing::kRaw   ? zr::kProtocolSocket
                       : cell.wire == Wire::kPlain ? zr::kProtocolHttp
                                                   : zr::kProtocolHttps),
              cell.wire) {}

  /// What was wrong; empty when all was well.
  std::string Run() {
    std::string wrong = Reach();
    // The server knows all that it was sent.
    if (wrong.empty() && !(bed_.WaitForAnother() && line_.WaitUntilTaken())) wrong = "not served";
    if (wrong.empty()) wrong = Misbehave();
    if (wrong.empty()) wrong = TakeWhatIsDue();
    gate_.Open();
    return wrong;
  }

 private:
  bool ProgramWaits() const {
    return cell_.thing == Thing::kProgram && cell_.moment == Moment::kWaiting;
  }
  std::string Path() const {
    switch (cell_.thing) {
      case Thing::kFile:
        return cell_.moment == Moment::kFirst ? "/big" : "/file";
      case Thing::kPage:
        return cell_.moment == Moment::kFirst ? "/bigpage" : "/page";
      case Thing::kProgram:
        if (ProgramWaits()) return "/cgi-bin/gate";
        return cell_.moment == Moment::kFirst ? "/cgi-bin/big" : "/cgi-bin/run";
      default:
        return "/none";
    }
  }
  std::string Request() const {
    if (cell_.thing == Thing::kRaw) return cell_.moment == Moment::kFirst ? "big" : "some bytes";
    return "GET " + Path() + " HTTP/1.1\r\nHost: a\r\n\r\n";
  }

  std::string Reach() {
    if (!line_.IsOpen()) return "no connection";
    if (cell_.moment == Moment::kConnected) return {};
    if (cell_.moment == Moment::kHandshake || cell_.moment == Moment::kFlight) {
      const std::string flight = line_.FirstFlight();
      const bool part = cell_.moment == Moment::kHandshake;
      line_.SendRaw(flight.substr(0, part ? flight.size() / 2 : flight.size()));
      return part || line_.WaitInput() ? "" : "no answer to the handshake";
    }
    if (!line_.Handshake()) return "no handshake";
    switch (cell_.moment) {
      case Moment::kSecured:
        return {};
      case Moment::kHead:
        line_.Send("GET " + Path() + " HTTP/1.1\r\nHost: a\r\nX-A: ");
        return {};
      case Moment::kBody:
        line_.Send("POST " + Path() + " HTTP/1.1\r\nContent-Length: 9000\r\n\r\n" +
                   std::string(1000, 'b'));
        return {};
      default:
        break;
    }
    line_.Send(Request());
    if (ProgramWaits() && !gate_.WaitForProgram()) return "the program was not started";
    if (cell_.moment == Moment::kFirst) return TakeBytes(1) ? "" : "no first byte";
    if (cell_.moment == Moment::kLast) return TakeAnswer(10) ? "" : "no last bytes";
    if (cell_.moment == Moment::kIdle) return TakeAnswer(0) ? "" : "no answer";
    return {};
  }

  std::string Misbehave() {
    switch (cell_.act) {
      case Act::kSilence:
        return bed_.PassAllLimits() ? "" : "the connection is kept; ";
      case Act::kTrickle:
        Trickle();
        return {};
      case Act::kFlood:
        Flood();
        return {};
      default:
        ActOnLine(line_, cell_.act, cell_.wire);
        return {};
    }
  }

  /// The next byte that such a client would send.
  char ByteOf(int round) const {
    constexpr std::string_view kStart = "GET /file HTTP/1.1\r\nX-A: ";
    constexpr std::string_view kLines = "a\r\nX: ";
    const auto at = static_cast<std::size_t>(round);
    if (cell_.moment == Moment::kBody) return 'b';
    if (cell_.moment == Moment::kHead || at >= kStart.size()) return kLines[at % kLines.size()];
    return kStart[at];
  }

  void Trickle() {
    const bool raw = cell_.moment <= Moment::kFlight;
    for (int round = 0; round < kAllLimits.count() && !line_.Ended(); ++round) {
      if (cell_.moment == Moment::kFirst) {
        line_.Read(1, milliseconds(0));
      } else {
        const std::string byte(1, ByteOf(round));
        if (!(raw ? line_.SendRaw(byte) : line_.Send(byte)) || !line_.WaitUntilTaken()) return;
      }
      if (round == 30 && ProgramWaits()) {
        gate_.Open();
        line_.WaitInput();
      }
      bed_.Pass(seconds(1));
    }
    // Reading a byte makes no room: what the server was still writing meanwhile was its last.
    if (cell_.moment == Moment::kFirst) bed_.PassAllLimits();
  }

  void Flood() {
    std::string piece;
    for (int i = 0; i < 16'000; ++i) {
      switch (cell_.moment) {
        case Moment::kHead:
          piece += "a\r\nX: ";
          break;
        case Moment::kBody:
          piece += "bbbbbb";
          break;
        default:
          piece += "GET /file HTTP/1.1\r\n\r\n";
      }
      if (piece.size() > 16'000) break;
    }
    const bool raw = cell_.moment <= Moment::kFlight;
    for (int i = 0; i < (Torture() ? 2000 : 100); ++i) {
      if (!line_.SendRaw(raw ? piece : line_.Seal(piece), milliseconds(5))) return;
    }
  }

  std::string TakeWhatIsDue() {
    switch (cell_.act) {
      case Act::kFin:
      case Act::kNotify:
        return TakeRest();
      case Act::kReset:
      case Act::kNotifyReset:
        return ProgramWaits() && !gate_.WaitUntilGone() ? "the program goes on for nobody; " : "";
      case Act::kSilence:
        return ProgramWaits() && !gate_.WaitUntilGone() ? "the program goes on for nobody; " : "";
      case Act::kTrickle:
        // Of raw bytes each one is all that there is to say. What had been sent before the end may
        // still be there; much of it, for slow readers.
        for (int i = 0; i < 20'000 && !line_.Ended() && cell_.thing != Thing::kRaw; ++i) {
          if (line_.Read(65536, kSettleLimit).empty()) break;
        }
        if (!line_.Ended() && cell_.thing != Thing::kRaw) return "the connection is kept; ";
        line_.Close();
        return {};
      case Act::kGarbage:
      case Act::kFlood:
      case Act::kPartial:
      case Act::kKeyUpdates:
        gate_.Open();
        line_.Close();
        return {};
    }
    return {};
  }

  /// A client that ended only its own side gets what it had asked for, and then the end.
  std::string TakeRest() {
    gate_.Open();
    if (cell_.thing == Thing::kRaw) {
      line_.ReadToEnd();
    } else if (cell_.moment >= Moment::kWaiting && cell_.moment <= Moment::kLast &&
               !TakeAnswer(0)) {
      return "the answer is not whole: " + std::to_string(taken_.size()) + " bytes; ";
    } else {
      line_.ReadToEnd(5 * kSettleLimit);
    }
    if (cell_.moment >= Moment::kWaiting) line_.ReadToEnd(5 * kSettleLimit);
    return line_.Ended() ? "" : "the server does not end its side; ";
  }

  bool TakeBytes(std::size_t count) {
    while (taken_.size() < count) {
      const std::string more = line_.Read(count - taken_.size());
      if (more.empty()) return false;
      taken_ += more;
    }
    return true;
  }
  /// Reads the answer but for the last `leave` bytes.
  bool TakeAnswer(std::size_t leave) {
    constexpr std::string_view kLength = "Content-Length: ";
    if (cell_.thing == Thing::kRaw) {
      return TakeBytes((cell_.moment == Moment::kFirst ? TortureBed::kBigSize : 10) - leave);
    }
    std::size_t head = 0;
    while ((head = taken_.find("\r\n\r\n")) == std::string::npos) {
      if (!TakeBytes(taken_.size() + 1)) return false;
    }
    const std::size_t at = taken_.find(kLength);
    if (at == std::string::npos || !taken_.starts_with("HTTP/1.1 ")) return false;
    return TakeBytes(head + 4 + std::stoul(taken_.substr(at + kLength.size())) - leave);
  }

  TortureBed& bed_;
  const Cell cell_;
  Gate gate_;
  Line line_;
  std::string taken_;
};

void RunAll(Wire wire, std::initializer_list<Moment> moments, bool raw = false) {
  std::unique_ptr<TortureBed> bed;
  for (const Moment moment : moments) {
    for (const Act act : kActs) {
      if (!IsPossible(wire, moment, act)) continue;
      for (const Thing thing :
           {Thing::kFile, Thing::kPage, Thing::kProgram, Thing::kMissing, Thing::kRaw}) {
        if (raw != (thing == Thing::kRaw)) continue;
        // What is asked for is not known to the server before the head is complete.
        if (moment < Moment::kBody && thing != Thing::kFile && !raw) continue;
        if (act == Act::kKeyUpdates && thing != Thing::kFile && !Torture()) continue;
        const Cell cell{wire, moment, act, thing};
        RunCell(bed, NameOf(cell), [&](TortureBed& own) { return Client(own, cell).Run(); });
      }
    }
  }
}

constexpr auto kPlainMoments = {Moment::kConnected, Moment::kHead, Moment::kBody, Moment::kWaiting,
                                Moment::kFirst,     Moment::kLast, Moment::kIdle};
constexpr auto kTlsMoments = {
    Moment::kConnected, Moment::kHandshake, Moment::kFlight, Moment::kSecured, Moment::kHead,
    Moment::kBody,      Moment::kWaiting,   Moment::kFirst,  Moment::kLast,    Moment::kIdle};

TEST(Serving, Http) { RunAll(Wire::kPlain, kPlainMoments); }
TEST(Serving, Tls12) { RunAll(Wire::kTls12, kTlsMoments); }
TEST(Serving, Tls13) { RunAll(Wire::kTls13, kTlsMoments); }
TEST(Serving, Raw) {
  RunAll(Wire::kPlain,
         {Moment::kConnected, Moment::kWaiting, Moment::kFirst, Moment::kLast, Moment::kIdle},
         true);
}

}  // namespace

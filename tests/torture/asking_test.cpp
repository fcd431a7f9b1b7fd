// What servers of others can do to our requests. Every cell gets a peer into a moment of an
// exchange that we asked for; the request ends in exactly one outcome, and nothing may be left.

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "http/protocol_kind.h"
#include "platform/socket.h"
#include "tests/support/wait.h"
#include "tests/torture/cell.h"

namespace {

using namespace zrtest;
using std::chrono::milliseconds;
using std::chrono::seconds;

enum class Framing { kLength, kChunked };

struct Cell {
  Wire wire;
  Moment moment;
  Act act;
  Framing framing;
};

std::string NameOf(const Cell& cell) {
  return std::string(kMomentNames[static_cast<int>(cell.moment)]) + " / " +
         kActNames[static_cast<int>(cell.act)] + " / " +
         (cell.framing == Framing::kLength ? "length" : "chunks");
}

/// The peer of one request, which may come more than once.
class Peer {
 public:
  Peer(TortureBed& bed, const Cell& cell) : bed_(bed), cell_(cell) {
    for (const ZrSocketAddress& address : zr::ResolveHost("127.0.0.1", 0).addresses) {
      listener_ = zr::OpenListener(address, 64);
    }
  }

  std::string Run() {
    const auto head =
        AskingBed::Request(zr::LocalPort(listener_.Get()), "/x", {},
                           cell_.wire == Wire::kPlain ? zr::kProtocolHttp : zr::kProtocolHttps);
    head->connectOptions.Set("timeout", std::to_string(300 * kSlowness));  // connecting, in ms
    name_ = head->JobName();
    const std::size_t before = bed_.client->Outcomes().size();
    // Sending may take as long as connecting does.
    auto asking = std::async(std::launch::async, [&] { bed_.client->SendMessage(head); });
    std::string wrong;
    int connections = 0;
    int looks = 0;
    const bool ended = WaitFor(
        [&] {
          if (wrong.empty() && !Outcome() && connections < 5) {
            ZrAccepted accepted = zr::AcceptPeer(listener_.Get());
            if (accepted.status == ZrAcceptStatus::kAccepted) {
              ++connections;
              Serve(*lines_.emplace_back(
                  std::make_unique<Line>(std::move(accepted.socket), cell_.wire)));
            }
          }
          // A connection that was ended in order lingers for two seconds.
          if (++looks == 100) bed_.Pass(seconds(3));
          // A silence may begin for ours only when the time had passed: its threads were busy.
          if (looks % 100 == 0 && cell_.act == Act::kSilence) bed_.Pass(kAllLimits);
          return Outcome().has_value();
        },
        seconds(5 * kSlowness));
    listener_.Close();
    if (!ended) lines_.clear();
    asking.wait();
    if (!ended) return "no outcome over " + std::to_string(connections) + " connections; ";
    if (cell_.moment == Moment::kIdle) {
      if (*Outcome() != "200 body") return "the answer is " + *Outcome() + "; ";
      Misbehave(*lines_.back());
    }
    lines_.clear();
    if (bed_.client->Outcomes().size() != before + 1) return "more than one outcome; ";
    return {};
  }

 private:
  std::optional<std::string> Outcome() {
    for (const auto& [of, outcome] : bed_.client->Outcomes()) {
      if (of == name_) return outcome.Text();
    }
    return std::nullopt;
  }
  std::string Head() const {
    return cell_.framing == Framing::kLength
               ? "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n"
               : "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  }
  std::string Body() const {
    return cell_.framing == Framing::kLength ? "body" : "4\r\nbody\r\n0\r\n\r\n";
  }
  /// How far the answer is sent at the moment.
  std::string Sent() const {
    switch (cell_.moment) {
      case Moment::kHead:
        return Head().substr(0, 20);
      case Moment::kFirst:
        return Head() + Body().substr(0, 2);
      case Moment::kLast:
        return Head() + Body().substr(0, Body().size() - 1);
      case Moment::kIdle:
        return Head() + Body();
      default:
        return {};
    }
  }

  void Serve(Line& line) {
    if (cell_.moment == Moment::kHandshake || cell_.moment == Moment::kFlight) {
      const std::string flight = line.FirstFlight();
      line.SendRaw(cell_.moment == Moment::kFlight ? flight : flight.substr(0, flight.size() / 2));
    } else if (cell_.moment > Moment::kFlight) {
      if (!line.Handshake()) return;
      if (cell_.moment > Moment::kSecured) line.ReadUntil("\r\n\r\n");
      line.Send(Sent());
      line.WaitUntilTaken();
    }
    if (cell_.moment != Moment::kIdle) Misbehave(line);
  }

  void Misbehave(Line& line) {
    switch (cell_.act) {
      case Act::kSilence:
        // Connecting has a limit of its own, which is real time. With TLS 1.3 the flight ends it.
        if (cell_.moment > Moment::kFlight || cell_.wire == Wire::kPlain ||
            (cell_.moment == Moment::kFlight && cell_.wire == Wire::kTls13)) {
          line.WaitUntilTaken();
          bed_.PassAllLimits();
        }
        return;
      case Act::kTrickle:
        return Trickle(line);
      case Act::kFlood:
        return Flood(line);
      default:
        ActOnLine(line, cell_.act, cell_.wire);
        // A peer that ends its side in the middle of the handshake waits for ours.
        if (cell_.act == Act::kGarbage || cell_.act == Act::kKeyUpdates) line.Close();
    }
  }

  /// The bytes that come next, for ever.
  std::string Endless() const {
    switch (cell_.moment) {
      case Moment::kWaiting:
      case Moment::kSecured:
        return "HTTP/1.1 100 Continue\r\n\r\n";
      case Moment::kHead:
        return "\r\nX: y";
      default:
        return "aaaa\r\n";
    }
  }
  void Trickle(Line& line) {
    const bool raw = cell_.moment <= Moment::kFlight;
    const std::string endless = Endless();
    for (int round = 0; round < 2 * kAllLimits.count() && !line.Ended(); ++round) {
      const std::string byte(1, endless[static_cast<std::size_t>(round) % endless.size()]);
      if (!(raw ? line.SendRaw(byte) : line.Send(byte)) || !line.WaitUntilTaken()) return;
      bed_.Pass(seconds(1));
      if (Outcome()) return;
    }
  }
  void Flood(Line& line) {
    std::string piece;
    while (piece.size() < 16'000) piece += Endless();
    const bool raw = cell_.moment <= Moment::kFlight;
    for (int i = 0; i < (Torture() ? 2000 : 100); ++i) {
      if (!line.SendRaw(raw ? piece : line.Seal(piece), milliseconds(20))) break;
    }
    // One that goes on for ever must have been given up by then; the others end here.
    if (cell_.moment != Moment::kWaiting && cell_.moment != Moment::kHead) line.Close();
  }

  TortureBed& bed_;
  const Cell cell_;
  ZrDescriptor listener_;
  std::string name_;
  std::vector<std::unique_ptr<Line>> lines_;
};

void RunAll(Wire wire, std::initializer_list<Moment> moments) {
  std::unique_ptr<TortureBed> bed;
  for (const Moment moment : moments) {
    for (const Act act : kActs) {
      if (!IsPossible(wire, moment, act)) continue;
      for (const Framing framing : {Framing::kLength, Framing::kChunked}) {
        if (moment < Moment::kHead && framing == Framing::kChunked) continue;
        if (act == Act::kKeyUpdates && framing == Framing::kChunked && !Torture()) continue;
        const Cell cell{wire, moment, act, framing};
        RunCell(bed, NameOf(cell), [&](TortureBed& own) { return Peer(own, cell).Run(); });
      }
    }
  }
}

constexpr auto kTlsMoments = {Moment::kConnected, Moment::kHandshake, Moment::kFlight,
                              Moment::kSecured,   Moment::kHead,      Moment::kWaiting,
                              Moment::kFirst,     Moment::kLast,      Moment::kIdle};

TEST(Asking, Http) {
  RunAll(Wire::kPlain, {Moment::kConnected, Moment::kWaiting, Moment::kHead, Moment::kFirst,
                        Moment::kLast, Moment::kIdle});
}
TEST(Asking, Tls12) { RunAll(Wire::kTls12, kTlsMoments); }
TEST(Asking, Tls13) { RunAll(Wire::kTls13, kTlsMoments); }

}  // namespace

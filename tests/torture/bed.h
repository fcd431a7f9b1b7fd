#pragma once
// What the tests of misbehaving peers share: servers of every protocol in this process, with a
// clock that the test moves; a count of all that a peer can leave behind; and a bystander, another
// client that is served all the while and must not notice.

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "handlers/cgi.h"
#include "handlers/static_files.h"
#include "jobs/scheduler.h"
#include "tests/support/asking_client.h"
#include "tests/support/left_behind.h"
#include "tests/support/manual_clock.h"
#include "tests/support/raw_client.h"
#include "tests/support/temporary_folder.h"
#include "transceiver/transceiver.h"

namespace zrtest {

// The sanitizers slow everything down, ThreadSanitizer about tenfold.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kSlowness = 10;
#else
inline constexpr int kSlowness = 1;
#endif
/// What nobody may leave behind longer than that, and what no bystander may wait.
inline constexpr std::chrono::milliseconds kSettleLimit{1000 * kSlowness};
inline constexpr std::chrono::milliseconds kBystanderLimit{100 * kSlowness};

/// Time limits of the server are all shorter than that.
inline constexpr std::chrono::seconds kAllLimits{1100};

/// Whether the long cells are asked for, too (VELKORO_TORTURE is set).
bool Torture();

/// Asks for a small file over and over, on a connection that it keeps. In between it asks a thread
/// that does nothing else, which tells how busy the machine is.
class Bystander {
 public:
  explicit Bystander(int port);
  ~Bystander();
  /// The longest wait since the last question, in milliseconds, less three of the longest for that
  /// thread, as a request is handed on about as often; a failure counts as a minute.
  std::int64_t TakeWorst();
  /// While this is held no request of the bystander is under way.
  ZrMutex turn;
  std::uint64_t requests ZR_GUARDED_BY(turn) = 0;

 private:
  void Loop();
  std::int64_t Request();
  std::int64_t Echo();
  const int port_;
  std::unique_ptr<RawClient> line_;
  int echo_[2] = {-1, -1};
  std::atomic<std::int64_t> worst_{0};
  std::atomic<std::int64_t> worstEcho_{0};
  std::atomic<bool> ended_{false};
  std::thread echoing_;
  std::thread thread_;
};

/// Files, pages, programs and requests of our own; DirectSocket bytes are sent back.
class TortureClient : public AskingClient {
 public:
  using AskingClient::AskingClient;
  int HandleMessage(const std::string& name, std::shared_ptr<ZrXHeader> message) override;
};

/// Servers of an application and its own requests, as it starts, uses and ends them.
class SiteServers {
  ZrMutex lock_;
  std::map<std::string, int> ports_ ZR_GUARDED_BY(lock_);

 public:
  explicit SiteServers(const std::string& folder, ZrRequestApplication* pages = nullptr,
                       const ZrClock& clock = ZrClock::System());
  ~SiteServers();
  void Open(std::uint32_t kind);
  /// Where that server listens, or 0 when it has said that it cannot; nothing before it has said.
  std::optional<int> Port(std::uint32_t kind);

  ZrRinvalScheduler2 scheduler;
  const std::shared_ptr<ZrCgi> scripts = std::make_shared<ZrCgi>(scheduler);
  ZrTransceiver transceiver;
  std::shared_ptr<TortureClient> client;
};

class TortureBed {
  class Pages;
  const TemporaryFolder folder_;
  const std::string gate_;
  const std::unique_ptr<ZrRequestApplication> pages_;

 public:
  static constexpr std::size_t kBigSize = 8 << 20;  // more than the sockets between take

  TortureBed();
  ~TortureBed();

  /// Waits until a connection has come besides the bystander's.
  bool WaitForAnother();
  /// Time goes on for the server, but not while it has a request of the bystander, of which the
  /// number so far is returned.
  std::uint64_t Pass(std::chrono::seconds time);
  /// Longer than any limit; whether no connection is left then besides the bystander's.
  bool PassAllLimits();
  /// Runs one cell: `body` gets a peer into a moment, has it misbehave and go away, and says what
  /// was wrong, if anything. Reports that, what was left behind, and a bystander that had to wait.
  /// A cell that was only slow is repeated twice, as the machine may have been busy.
  template <class Body>
  std::string RunCell(Body body) {
    std::string slow;
    for (int attempt = 0; attempt < 3; ++attempt) {
      std::string wrong = body();
      wrong += Settle(slow = {});
      if (!wrong.empty() || slow.empty()) return wrong;
    }
    return slow;
  }
  /// The program that waits at the gate.
  const std::string& GatePath() const { return gate_; }

  ManualClock clock{1'000'000};
  SiteServers servers;

 private:
  Counts Count();
  std::string Settle(std::string& slow);
  bool IsIdle();
  void WarmUp();

  std::unique_ptr<Bystander> bystander_;
  Counts before_;
};

}  // namespace zrtest

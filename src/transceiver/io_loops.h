#pragma once
// The two jobs that move the bytes of all connections, each by a team of threads. The receive job
// waits for input of every connection; the kernel reports what is ready, so a pass costs nothing
// for silent ones. Output is written by the thread that has it; only a connection whose socket
// refused some stands in the send job's set, until all is written. A connection is taken out of the
// receive job's set while its server leaves too much unread, and for good when the peer has ended
// its side, as the kernel would report that over and over.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "base/memory_budget.h"
#include "platform/clock.h"
#include "platform/sync.h"
#include "transceiver/connection.h"
#include "transceiver/fwd.h"
#include "transceiver/io_lane.h"
#include "transceiver/io_registration.h"
#include "transceiver/io_team.h"

class ZrHousekeeper;
class ZrRinvalScheduler2;
class ZrStopProgress;

/// Owned by the transceiver. Threads: any. The caller holds no lock but jobs' own.
class ZrIoLoops {
 public:
  /// Called when a connection can only be removed; no lock is held.
  using Remove = std::function<void(ZrTransceiverConnection&)>;

  /// While memory is short, connections that hold more input than that (bytes) are not read.
  static constexpr std::uint64_t kFairShare = 64 * 1024;
  /// What holds memory and stands still for that long (nanoseconds) is given up for others then.
  static constexpr std::int64_t kStandstill = 60'000'000'000;

  /// All outlive the loops. The name, the owner's, ends the names of the two tasks. All connections
  /// together are to hold at most `memoryLimit` bytes; each job has a team of that size.
  ZrIoLoops(ZrRinvalScheduler2& scheduler, ZrHousekeeper& housekeeper, ZrStopProgress& progress,
            const ZrClock& clock, std::string name, std::uint64_t memoryLimit, ZrIoTeamSize team,
            Remove remove);
  ZrIoLoops(const ZrIoLoops&) = delete;
  ZrIoLoops& operator=(const ZrIoLoops&) = delete;

  /// Serves the connection on its socket from now on; the first one starts the jobs. No: the socket
  /// cannot be watched, or there is no thread for the jobs; the next connection tries again.
  bool Register(std::shared_ptr<ZrSocketIPvx> socket,
                const std::shared_ptr<ZrTransceiverConnection>& connection) ZR_EXCLUDES(lock_);
  /// Ends that, with what was still to be sent; the socket closes with the last pass that uses it.
  /// Nothing when the connection is not registered (any more).
  std::shared_ptr<ZrIoRegistration> Unregister(ZrTransceiverConnection& connection)
      ZR_EXCLUDES(lock_);
  /// Ends both jobs and forgets all connections.
  void Stop() ZR_EXCLUDES(lock_);
  /// Waits until the jobs have ended: they use this object to their last step.
  void WaitForEnd() ZR_EXCLUDES(lock_);

  /// Writes what is queued on the connection now, on this thread; what the socket refuses is left
  /// to the send job.
  void Flush(ZrTransceiverConnection& connection);
  /// The same with these bytes behind what is queued; they are sent from where they are when that
  /// is nothing. The buffer is empty afterwards.
  void Flush(ZrTransceiverConnection& connection, ZrStringBuf& bytes);
  /// Has the send job look for queued output on all connections.
  void FlushAllLater();
  /// A connection that reading had paused on may be read again.
  void ResumeReading(ZrTransceiverConnection& connection) ZR_EXCLUDES(lock_);
  const std::shared_ptr<ZrMemoryBudget>& Memory() const { return memory_; }

 private:
  using Registration = ZrIoLane::Registration;
  using Ready = ZrIoLane::Ready;
  using ReadySpan = std::span<const Ready>;
  // Where the budget tells of room; shares of it may outlive the loops.
  struct Bell {
    explicit Bell(std::shared_ptr<ZrIoLane> of) : lane(std::move(of)) {}
    const std::shared_ptr<ZrIoLane> lane;  // of the receive job's own thread
    std::atomic<bool> rung{false};
    void Ring() noexcept {
      rung = true;
      lane->Wake();
    }
  };

  /// No: there is no thread for one of them, or they have been stopped.
  bool StartJobs() ZR_REQUIRES(lock_);
  std::uint64_t Submit(const std::string& name, ZrIoTeam& team);
  static bool IsPaused(ZrIoRegistration& registration);
  void ReceiveLoop(ZrIoTeam::Member& member);
  void SendLoop(ZrIoTeam::Member& member);
  void FlushAll();
  void ReceiveAll(ZrReceivePass& pass, ZrIoLane& lane, ReadySpan ready);
  void ReceiveOpening(ZrReceivePass& pass, ZrIoLane& lane, ReadySpan ready);
  void Receive(ZrIoLane& lane, const Ready& ready);
  static void ReadAgain(ZrTransceiverConnection& connection);
  /// No: the bytes were taken meanwhile, reading goes on.
  bool PauseReading(ZrIoRegistration& registration);
  /// Memory is short: the connection is not read on when it holds more than its share.
  bool Starve(ZrIoRegistration& registration);
  /// There is memory again.
  void FeedStarved() ZR_EXCLUDES(lock_);
  static void Pause(ZrIoRegistration& registration);
  void OnPeerFinished(ZrIoRegistration& registration);
  /// Writes what is queued. Since a poller said that the socket is ready (`ready`, else none), a
  /// pass that does nothing and would be repeated at once ends the connection.
  void Flush(ZrTransceiverConnection& connection, const Ready* ready);
  /// A pass of receiving may have written, or wait for room to go on.
  void AfterOutput(ZrIoRegistration& registration);
  void AfterProgress(ZrTransceiverConnection& connection);
  bool EndOutputWhenDone(ZrTransceiverConnection& connection, ZrIoRegistration& registration)
      ZR_REQUIRES(connection.Lock());
  /// No: it is wanted, and the system does not watch it.
  bool WatchOutput(ZrTransceiverConnection& connection, ZrIoRegistration& registration, bool wanted)
      ZR_REQUIRES(connection.Lock());

  // Constant after construction.
  ZrRinvalScheduler2& scheduler_;
  ZrHousekeeper& housekeeper_;
  ZrStopProgress& progress_;
  const ZrClock& clock_;
  const std::string name_;
  const Remove remove_;
  ZrIoTeam receivers_;
  ZrIoTeam senders_;
  const std::shared_ptr<Bell> bell_;
  const std::shared_ptr<ZrMemoryBudget> memory_;

  ZrMutex telling_;                    // see ZrReceivePass
  std::atomic<bool> flushAll_{false};  // FlushAllLater() was called

  ZrMutex lock_;  // before those of the teams and lanes
  std::uint64_t lastToken_ ZR_GUARDED_BY(lock_) = 0;
  std::vector<std::weak_ptr<ZrIoRegistration>> starved_ ZR_GUARDED_BY(lock_);
  bool stopped_ ZR_GUARDED_BY(lock_) = false;
  std::uint64_t receiveJob_ ZR_GUARDED_BY(lock_) = 0;  // task IDs; 0: does not run yet
  std::uint64_t sendJob_ ZR_GUARDED_BY(lock_) = 0;
};

#pragma once
// The threads that carry out one of the two I/O jobs. The job's own task is the first of them and
// always there; helpers come while a thread has all of a core and more to do than that, and go when
// they do not help: when the others could do the work, or when it does not get done any faster, as
// no core was free. Each has a lane of its own. A thread that has too much hands some of the
// connections that were just ready to the one that has least to do.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/sync.h"
#include "platform/thread.h"
#include "transceiver/io_lane.h"

/// How many threads carry out each of the I/O jobs at most.
struct ZrIoTeamSize {
  /// One for each core, and no more than that.
  static constexpr unsigned kMost = 16;
  static ZrIoTeamSize OfMachine();

  unsigned most = 1;
  bool atOnce = false;  ///< All of them from the start and to the end, whatever there is to do.
};

/// What tells a team how its threads are used; tests say so themselves.
struct ZrIoTeamMeter {
  std::function<std::int64_t()> now;    ///< monotonic time, nanoseconds
  std::function<std::int64_t()> cpuNs;  ///< processor time of the calling thread, nanoseconds
  static ZrIoTeamMeter OfSystem();
};

/// Owned by the I/O loops. Threads: any, where nothing else is said.
class ZrIoTeam {
 public:
  using Ready = ZrIoLane::Ready;
  static constexpr std::chrono::nanoseconds kForEver{-1};
  class Member;
  /// What each thread does: Next() and the pass for what that gave it, until it answers no.
  using Loop = std::function<void(Member&)>;

  /// The name, for debuggers, is that of the helpers' threads.
  ZrIoTeam(ZrIoLane::Direction direction, const char* threadName, ZrIoTeamSize size, Loop loop,
           ZrIoTeamMeter meter = ZrIoTeamMeter::OfSystem());
  ZrIoTeam(const ZrIoTeam&) = delete;
  ZrIoTeam& operator=(const ZrIoTeam&) = delete;
  ~ZrIoTeam();

  /// The job is about to start.
  void Begin() { running_ = true; }
  /// Carries out the job on the calling thread, until Stop(); has ended all helpers then.
  void Run() ZR_EXCLUDES(lock_);
  void Stop() ZR_EXCLUDES(lock_);
  /// The registration stands in the lane of the thread with the least to do from now on. Its
  /// connection's lock is held.
  void Enter(const ZrIoLane::Registration& registration) ZR_EXCLUDES(lock_);
  /// The lane of the job's own thread.
  const std::shared_ptr<ZrIoLane>& First() const { return first_; }
  /// Those that stand in any lane now.
  std::vector<ZrIoLane::Registration> All() ZR_EXCLUDES(lock_);

  /// One thread of the team, for its loop.
  class Member {
   public:
    /// Waits for the next pass, at most that long, which then has nobody. `ready` comes with the
    /// connections of the pass before, some of which may go to other threads, and gets the new
    /// ones. No: the thread's work is over.
    bool Next(std::vector<Ready>& ready, std::chrono::nanoseconds limit);
    ZrIoLane& Lane() const { return *lane; }

   private:
    friend class ZrIoTeam;
    Member(ZrIoTeam& owner, std::shared_ptr<ZrIoLane> own) : team(owner), lane(std::move(own)) {}
    bool IsHelper() const { return lane != team.first_; }

    ZrIoTeam& team;
    const std::shared_ptr<ZrIoLane> lane;
    ZrThread thread;  // a helper's

    // Written by the thread itself, read by others too: how much of a core it used in its last
    // window, in thousandths, and when that ended (monotonic ns).
    std::atomic<int> load{0};
    std::atomic<std::int64_t> loadAt{0};

    // The thread's own.
    std::int64_t windowBegan = 0;
    std::int64_t windowCpu = 0;
    unsigned passes = 0;
    unsigned served = 0;       // connections in these passes
    unsigned fullWindows = 0;  // in a row
    std::int64_t came = 0;
    int loadBefore = 0;  // of the whole team, when it came
    bool judged = false;
  };

 private:
  /// Nothing: there is no thread for one.
  Member* AddHelper(std::int64_t now) ZR_REQUIRES(lock_);
  /// Looks at how a member's work goes. No: it, a helper, is of no use any more.
  bool Review(Member& member, std::int64_t now, std::vector<Ready>& ready) ZR_EXCLUDES(lock_);
  bool IsOfUse(Member& member, std::int64_t now) ZR_REQUIRES(lock_);
  /// The lane of one that has room for some of its connections; nothing when all have enough to do.
  std::shared_ptr<ZrIoLane> Relief(const Member& member, std::int64_t now) ZR_EXCLUDES(lock_);
  int TeamLoad(std::int64_t now) const ZR_REQUIRES(lock_);
  static int LoadOf(const Member& member, std::int64_t now);
  /// No: memory for that is short, it goes on.
  bool Dismiss(Member& member) ZR_EXCLUDES(lock_);
  void JoinGone() ZR_EXCLUDES(lock_);

  const ZrIoLane::Direction direction_;
  const char* const threadName_;
  const ZrIoTeamSize size_;
  const Loop loop_;
  const ZrIoTeamMeter meter_;
  const std::shared_ptr<ZrIoLane> first_;
  std::atomic<bool> running_{false};
  std::atomic<bool> someGone_{false};

  ZrMutex lock_;  // behind the connections' locks
  std::vector<std::unique_ptr<Member>> members_ ZR_GUARDED_BY(lock_);  // the first is the job's
  std::vector<std::unique_ptr<Member>> gone_ ZR_GUARDED_BY(lock_);     // to be joined
  std::int64_t nextChange_ ZR_GUARDED_BY(lock_) = 0;  // before that (monotonic ns) nobody comes
  std::int64_t pause_ ZR_GUARDED_BY(lock_) = 0;       // after a helper that was of no use
};

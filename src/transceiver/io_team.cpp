#include "transceiver/io_team.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/clock.h"

namespace {

using std::chrono::nanoseconds;

constexpr std::int64_t kMs = 1'000'000;

// A window is looked at when it has that many passes and is that long.
constexpr unsigned kWindowPasses = 16;
constexpr std::int64_t kWindow = 5 * kMs;
// What a member used is of no meaning any more after that time: it has waited since.
constexpr std::int64_t kStale = 100 * kMs;
// In thousandths of a core: who uses that much, with several connections in a pass, has too much to
// do; who uses less than that has room for more; with less than that for each of the others there
// is one thread too many.
constexpr int kFull = 850;
constexpr int kRoom = 500;
constexpr int kEnoughWithout = 700;
// A helper has that time to show that the team gets that much more of the machine by it.
constexpr std::int64_t kTrial = 100 * kMs;
constexpr int kGain = 250;
// What was changed shows its effect before the next change; after a helper that was of no use the
// pause grows from the second to the third.
constexpr std::int64_t kSettle = 20 * kMs;
constexpr std::int64_t kShortPause = 250 * kMs;
constexpr std::int64_t kLongPause = 8'000 * kMs;
// A helper without work goes after that time.
constexpr nanoseconds kIdle{1'000 * kMs};

}  // namespace

ZrIoTeamSize ZrIoTeamSize::OfMachine() {
  return {.most = std::clamp(std::thread::hardware_concurrency(), 1U, kMost)};
}

ZrIoTeamMeter ZrIoTeamMeter::OfSystem() {
  return {.now = [] { return ZrClock::System().MonotonicNs(); },
          .cpuNs = [] { return ZrThreadUse::Now().cpuNs; }};
}

ZrIoTeam::ZrIoTeam(ZrIoLane::Direction direction, const char* threadName, ZrIoTeamSize size,
                   Loop loop, ZrIoTeamMeter meter)
    : direction_(direction),
      threadName_(threadName),
      size_(size),
      loop_(std::move(loop)),
      meter_(std::move(meter)),
      first_(std::make_shared<ZrIoLane>(direction)) {
  ZrLock hold(lock_);
  members_.push_back(std::unique_ptr<Member>(new Member(*this, first_)));
}

ZrIoTeam::~ZrIoTeam() = default;

void ZrIoTeam::Run() {
  Member* first = nullptr;
  {
    ZrLock hold(lock_);
    first = members_.front().get();
    while (size_.atOnce && running_ && members_.size() < size_.most && AddHelper(meter_.now())) {
    }
  }
  loop_(*first);
  // No helper comes any more. Their lanes stay, as what stands there has not been served to its
  // end.
  std::vector<Member*> helpers;
  {
    ZrLock hold(lock_);
    for (const auto& member : members_) helpers.push_back(member.get());
  }
  for (Member* const helper : helpers) helper->thread.Join();
  JoinGone();
}

void ZrIoTeam::Stop() {
  ZrLock hold(lock_);
  running_ = false;
  for (const auto& member : members_) member->lane->Wake();
}

void ZrIoTeam::Enter(const ZrIoLane::Registration& registration) {
  const std::int64_t now = meter_.now();
  ZrLock hold(lock_);
  auto chosen =
      std::min_element(members_.begin(), members_.end(), [now](const auto& one, const auto& other) {
        return LoadOf(*one, now) < LoadOf(*other, now);
      });
  if (size_.atOnce)
    chosen = members_.begin() + static_cast<std::ptrdiff_t>(registration->token % members_.size());
  if (!ZrIoLane::Enter((*chosen)->lane, registration)) ZrIoLane::Enter(first_, registration);
}

std::vector<ZrIoLane::Registration> ZrIoTeam::All() {
  std::vector<ZrIoLane::Registration> all;
  ZrLock hold(lock_);
  for (const auto& member : members_)
    for (auto& registration : member->lane->All()) all.push_back(std::move(registration));
  return all;
}

// ---- Who helps ---------------------------------------------------------------------------------

bool ZrIoTeam::Member::Next(std::vector<Ready>& ready, nanoseconds limit) {
  served += static_cast<unsigned>(ready.size());
  // A helper that has nothing else to wait for goes when nothing comes.
  const bool idle = IsHelper() && !team.size_.atOnce && limit == kForEver;
  bool ofUse = true;
  if (++passes >= kWindowPasses && !team.size_.atOnce)
    if (const std::int64_t now = team.meter_.now(); now - windowBegan >= kWindow)
      ofUse = team.Review(*this, now, ready);
  ready.clear();
  if (team.someGone_ && !IsHelper()) team.JoinGone();
  if (ofUse && team.running_) {
    try {
      lane->Wait(idle ? kIdle : limit, ready);
    } catch (const std::bad_alloc&) {
      return team.running_;  // it is reported again
    }
    ofUse = !idle || !ready.empty();
  }
  return team.running_ && (ofUse || !team.Dismiss(*this));
}

int ZrIoTeam::LoadOf(const Member& member, std::int64_t now) {
  return now - member.loadAt > kStale ? 0 : member.load.load();
}

int ZrIoTeam::TeamLoad(std::int64_t now) const {
  int load = 0;
  for (const auto& member : members_) load += LoadOf(*member, now);
  return load;
}

bool ZrIoTeam::Review(Member& member, std::int64_t now, std::vector<Ready>& ready) {
  const std::int64_t cpu = meter_.cpuNs();
  const bool first = member.windowBegan == 0;
  const int load = static_cast<int>((cpu - member.windowCpu) * 1000 /
                                    std::max<std::int64_t>(now - member.windowBegan, 1));
  const bool crowded = member.served >= 2 * member.passes;
  member.windowBegan = now;
  member.windowCpu = cpu;
  member.passes = member.served = 0;
  if (first) return true;
  member.load = load;
  member.loadAt = now;
  member.fullWindows = load >= kFull && crowded ? member.fullWindows + 1 : 0;
  if (member.IsHelper()) {
    ZrLock hold(lock_);
    if (!IsOfUse(member, now)) return false;
  }
  if (member.fullWindows < 2) return true;
  if (const std::shared_ptr<ZrIoLane> relief = Relief(member, now)) {
    member.fullWindows = 0;
    // Every other one, so that the two that are left are alike.
    try {
      for (std::size_t i = 0; i < ready.size(); i += 2)
        member.lane->HandOver(*ready[i].registration, relief);
    } catch (const std::bad_alloc&) {
      // Those that are left stay.
    }
  }
  return true;
}

bool ZrIoTeam::IsOfUse(Member& member, std::int64_t now) {
  const int load = TeamLoad(now);
  if (!member.judged && now - member.came > kTrial) {
    member.judged = true;
    if (load < member.loadBefore + kGain) {
      pause_ = std::clamp(2 * pause_, kShortPause, kLongPause);
      nextChange_ = now + pause_;
      return false;
    }
    pause_ = 0;
  }
  return !member.judged || load >= kEnoughWithout * static_cast<int>(members_.size() - 1);
}

std::shared_ptr<ZrIoLane> ZrIoTeam::Relief(const Member& member, std::int64_t now) {
  ZrLock hold(lock_);
  if (now < nextChange_ || !running_) return nullptr;
  nextChange_ = now + kSettle;
  for (const auto& other : members_)
    if (other.get() != &member && LoadOf(*other, now) < kRoom) return other->lane;
  if (members_.size() >= size_.most) return nullptr;
  Member* const helper = AddHelper(now);
  return helper != nullptr ? helper->lane : nullptr;
}

ZrIoTeam::Member* ZrIoTeam::AddHelper(std::int64_t now) try {
  members_.push_back(
      std::unique_ptr<Member>(new Member(*this, std::make_shared<ZrIoLane>(direction_))));
  Member& helper = *members_.back();
  helper.came = now;
  helper.loadBefore = TeamLoad(now);
  helper.thread = ZrThread::Start(threadName_, [this, &helper] { loop_(helper); });
  return &helper;
} catch (const std::exception&) {
  // No thread, descriptors or memory for one: those that are there go on alone.
  if (members_.size() > 1 && !members_.back()->thread.Joinable()) members_.pop_back();
  nextChange_ = now + kLongPause;
  return nullptr;
}

// Nobody enters its lane from now on; what stands there goes to the job's own thread.
bool ZrIoTeam::Dismiss(Member& member) try {
  member.lane->Close(true);
  for (const auto& registration : member.lane->All()) member.lane->HandOver(*registration, first_);
  ZrLock hold(lock_);
  gone_.reserve(gone_.size() + 1);
  const auto place = std::find_if(members_.begin(), members_.end(),
                                  [&member](const auto& one) { return one.get() == &member; });
  if (place == members_.end()) return true;  // the end of the team takes care of it
  gone_.push_back(std::move(*place));
  members_.erase(place);
  someGone_ = true;
  first_->Wake();
  return true;
} catch (const std::bad_alloc&) {
  member.lane->Close(false);
  return false;
}

void ZrIoTeam::JoinGone() {
  std::vector<std::unique_ptr<Member>> gone;
  {
    ZrLock hold(lock_);
    someGone_ = false;
    gone.swap(gone_);
  }
  for (const auto& member : gone) member->thread.Join();
}

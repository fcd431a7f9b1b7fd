#include "cli/serve_events.h"

#include <chrono>
#include <cstdlib>
#include <utility>

#include "base/line_writer.h"
#include "cli/command.h"

namespace zr::cli {
namespace {

// Within this time after the second signal an orderly end is over, or it hangs.
constexpr std::chrono::milliseconds kHurryLimit{400};
constexpr std::chrono::milliseconds kLastLines{100};

}  // namespace

ServeEvents::ServeEvents(bool reopens) : signals_(reopens) {
  thread_ = ZrThread::Start(
      "velkoro_signals", [this] { WatchSignals(); });
}

ServeEvents::~ServeEvents() {
  over_ = true;
  signals_.Wake();
  thread_.Join();
}

void ServeEvents::Add(Event event) {
  const ZrLock hold(lock_);
  events_.push_back(std::move(event));
  came_.NotifyAll();
}

void ServeEvents::Tell(const ZrServerCallback_t& report) {
  if (report.kind == ZrServerCallback_t::kListening ||
      report.kind == ZrServerCallback_t::kBindFailed)
    Add({Event::Kind::kReport, report});
}

ServeEvents::Event ServeEvents::Next() {
  const ZrLock hold(lock_);
  came_.Wait(lock_, [this]() ZR_REQUIRES(lock_) { return !events_.empty(); });
  Event first = std::move(events_.front());
  events_.pop_front();
  return first;
}

void ServeEvents::OnHurry(std::function<void()> call) {
  const ZrLock hold(lock_);
  hurry_ = std::move(call);
}

void ServeEvents::WatchSignals() {
  bool stopping = false;
  while (!over_) {
    const Signal signal = signals_.Wait();
    if (signal == Signal::kReopen) Add({Event::Kind::kReopen});
    if (signal != Signal::kStop) continue;
    if (std::exchange(stopping, true)) return Hurry();
    Add({Event::Kind::kStop});
  }
}

void ServeEvents::Hurry() {
  {
    const ZrLock hold(lock_);
    if (hurry_) hurry_();
  }
  Signal signal = Signal::kWake;
  while (!over_ && signal != Signal::kStop && signal != Signal::kTimeout)
    signal = signals_.Wait(kHurryLimit);
  if (over_) return;
  if (signal == Signal::kTimeout) FlushLines(kLastLines);
  std::_Exit(kSuccess);
}

}  // namespace zr::cli

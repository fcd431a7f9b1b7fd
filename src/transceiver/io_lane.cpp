#include "transceiver/io_lane.h"

#include <algorithm>
#include <utility>

#include "net/tcp_socket.h"
#include "transceiver/connection.h"

bool ZrIoLane::Enter(const std::shared_ptr<ZrIoLane>& lane, const Registration& registration) {
  {
    ZrLock hold(lane->lock_);
    if (lane->closed_) return false;
    lane->byToken_.emplace(registration->token, registration);
  }
  lane->Side(*registration).lane = lane;
  return true;
}

void ZrIoLane::Leave(ZrIoRegistration& registration) {
  Unwatch(registration);
  // The caller's hold on the lane may be this one.
  const std::shared_ptr<ZrIoLane> lane = std::exchange(Side(registration).lane, nullptr);
  ZrLock hold(lock_);
  byToken_.erase(registration.token);
}

bool ZrIoLane::Watch(ZrIoRegistration& registration, unsigned interest) {
  Unwatch(registration);
  ZrIoRegistration::Direction& side = Side(registration);
  side.interest = interest;
  side.watched =
      poller_.Add(registration.socket->primaryDescriptor(), registration.token, interest);
  return side.watched;
}

void ZrIoLane::Unwatch(ZrIoRegistration& registration) {
  if (std::exchange(Side(registration).watched, false))
    poller_.Remove(registration.socket->primaryDescriptor());
}

void ZrIoLane::Report(std::uint64_t token) {
  ReportNext(token);
  poller_.Wake();
}

void ZrIoLane::ReportNext(std::uint64_t token) {
  ZrLock hold(lock_);
  reported_.push_back(token);
  reports_ = true;
}

void ZrIoLane::Wait(std::chrono::nanoseconds limit, std::vector<Ready>& ready) {
  const auto events = poller_.Wait(reports_ ? std::chrono::nanoseconds(0) : limit);
  ZrLock hold(lock_);
  for (const ZrReadiness& event : events) {
    const auto found = byToken_.find(event.token);
    if (found != byToken_.end()) ready.push_back({found->second, event.urgent, event.hangup});
  }
  if (!reports_) return;
  for (const std::uint64_t token : reported_) {
    const auto found = byToken_.find(token);
    if (found != byToken_.end()) ready.push_back({.registration = found->second});
  }
  reported_.clear();
  reports_ = false;
}

// What TLS has read of a socket already, or one that cannot be watched, no poller reports.
void ZrIoLane::HandOver(ZrIoRegistration& registration, const std::shared_ptr<ZrIoLane>& to) {
  ZrTransceiverConnection& connection = *registration.connection;
  ZrLock writing(connection.Lock());
  ZrIoRegistration::Direction& side = Side(registration);
  if (connection.Registration() != &registration || side.lane.get() != this) return;
  Registration moved;
  {
    ZrLock hold(lock_);
    moved = byToken_.at(registration.token);
  }
  if (!Enter(to, moved)) return;
  const bool watched = side.watched;
  Unwatch(registration);
  {
    ZrLock hold(lock_);
    byToken_.erase(registration.token);
  }
  if (watched && !to->Watch(registration, side.interest)) registration.lost = true;
  const bool input = direction_ == Direction::kInput;
  if (input && (registration.lost || connection.HasBufferedInput())) to->Report(registration.token);
  if (!input && registration.lost) registration.input.lane->Report(registration.token);
}

std::vector<ZrIoLane::Registration> ZrIoLane::All() {
  std::vector<Registration> all;
  ZrLock hold(lock_);
  all.reserve(byToken_.size());
  for (const auto& [token, registration] : byToken_) all.push_back(registration);
  return all;
}

void ZrIoLane::Close(bool closed) {
  ZrLock hold(lock_);
  closed_ = closed;
}

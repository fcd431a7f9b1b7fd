#include "transceiver/body_inlet.h"

#include <algorithm>
#include <utility>

#include "base/string_buffer.h"
#include "http/message_head.h"
#include "transceiver/connection.h"

namespace {

constexpr std::uint64_t kBadRequest = 400;
constexpr std::uint64_t kRequestTimeout = 408;

}  // namespace

ZrBodyInlet::ZrBodyInlet(std::shared_ptr<ZrXHeader> rest,
                         std::weak_ptr<ZrTransceiverConnection> connection)
    : connection_(std::move(connection)), rest_(std::move(rest)) {}

void ZrBodyInlet::OnArrival(std::function<void()> action) {
  if (const auto connection = connection_.lock()) connection->Notices().OnInput(std::move(action));
}

ZrBodyInlet::Next ZrBodyInlet::Take(ZrStringBuf& to) {
  const auto connection = connection_.lock();
  ZrLock hold(lock_);
  if (!rest_) return complete_ ? Next::kEnd : Next::kFailed;
  if (!connection || !connection->IsListed()) return Next::kFailed;
  // What the peer sent comes before its end.
  const bool ended = connection->PeerFinished();
  connection->TakeMore(rest_->Input());
  const ZrReadStep step = rest_->semantics->Read(*rest_, {});
  const std::size_t came = rest_->TakeArrivedBody(to);
  if (came > 0 && waitsSince_)
    waited_ += std::chrono::steady_clock::now() - *std::exchange(waitsSince_, std::nullopt);
  if (step != ZrReadStep::kComplete) return came > 0 ? Next::kSome : Wait(*connection, ended);
  if (rest_->refusal != 0) return Fail(*connection, rest_->refusal);
  if (rest_->surplus) connection->PutBack(*rest_->surplus);
  rest_ = nullptr;
  complete_ = true;
  return came > 0 ? Next::kSome : Next::kEnd;
}

ZrBodyInlet::Next ZrBodyInlet::Wait(ZrTransceiverConnection& connection, bool ended) {
  if (ended) return Fail(connection, kBadRequest);
  const auto now = std::chrono::steady_clock::now();
  if (!waitsSince_) waitsSince_ = now;
  return now >= Late() ? Fail(connection, kRequestTimeout) : Next::kWait;
}

ZrBodyInlet::Next ZrBodyInlet::Fail(ZrTransceiverConnection& connection, std::uint64_t status) {
  refusal_ = status;
  rest_ = nullptr;
  connection.CloseAfterItem();
  return Next::kFailed;
}

// The rate of a body counts while it is waited for: how fast its reader takes it is not the peer's.
ZrBodyInlet::Time ZrBodyInlet::Late() const {
  const std::chrono::nanoseconds most(ZrConnectionLimits::BodyTime(rest_->BodyBytes()));
  return *waitsSince_ + (most - std::min(most, waited_));
}

std::optional<ZrBodyInlet::Time> ZrBodyInlet::Due() const {
  ZrLock hold(lock_);
  if (!rest_ || !waitsSince_) return std::nullopt;
  return Late();
}

std::uint64_t ZrBodyInlet::Refusal() const {
  ZrLock hold(lock_);
  return refusal_ != 0 ? refusal_ : kBadRequest;
}

std::shared_ptr<ZrXHeader> ZrBodyInlet::Cut() {
  OnArrival({});
  ZrLock hold(lock_);
  return std::exchange(rest_, nullptr);
}

#include "transceiver/connection.h"

#include <algorithm>
#include <array>
#include <utility>

#include "http/semantics.h"
#include "jobs/job_event.h"
#include "jobs/job_registry.h"
#include "net/tcp_socket.h"
#include "transceiver/receive_pass.h"
#include "transceiver/transceiver.h"

namespace {

constexpr std::int64_t kAnswerExtraTime =
    ZrTransceiverConnection::kAnswerTimeLimit - ZrTransceiverConnection::kTimeLimit * 1000;

}  // namespace

ZrTransceiverConnection::ZrTransceiverConnection(ZrTransceiver& owner, std::string receiverName,
                                                 std::string peerName, ZrServerCallback_t record,
                                                 CloseCallback onClose)
    : ZrJobWithTimeout(kTimeLimit, owner.Clock()),
      owner_(owner),
      receiverName_(std::move(receiverName)),
      peerName_(std::move(peerName)),
      record_(std::make_shared<const ZrServerCallback_t>(std::move(record))),
      onClose_(std::move(onClose)),
      output_(owner.Memory()),
      turn_(output_, owner.Memory()),
      limits_(owner.Clock()),
      notices_(output_) {}

ZrTransceiverConnection::~ZrTransceiverConnection() = default;

bool ZrTransceiverConnection::Attach(std::string_view task) {
  {
    // Every answer attaches its connection, nearly always to the task it belongs to already.
    ZrLock hold(lock_);
    if (joined_ && handlerName_ == task) return true;
    handlerName_ = task;
    joined_ = false;
  }
  const bool joined = ZrJobWithTimeout::Attach(task);
  ZrLock hold(lock_);
  joined_ = joined && handlerName_ == task;
  return joined;
}

bool ZrTransceiverConnection::Detach(std::string_view task) {
  {
    ZrLock hold(lock_);
    handlerName_.clear();
    joined_ = false;
  }
  return ZrJobWithTimeout::Detach(task);
}

std::string ZrTransceiverConnection::JoinedTaskName() {
  ZrLock hold(lock_);
  return handlerName_;
}

bool ZrTransceiverConnection::IsIn(std::string_view task) {
  ZrLock hold(lock_);
  return handlerName_.empty() || handlerName_ == task;
}

std::shared_ptr<ZrTransceiverConnection::ServerPart> ZrTransceiverConnection::KeepForServer(
    std::shared_ptr<ServerPart> part) {
  ZrLock hold(lock_);
  if (!serverPart_) {
    serverPart_ = std::move(part);
    keptByServer_.store(serverPart_.get(), std::memory_order_release);
  }
  return serverPart_;
}

void ZrTransceiverConnection::Reset() {
  LeaveJoinedTask(AttachedTask());
  ZrLock writing(lock_);
  joined_ = false;
  turn_.Forget();
  output_.Clear();
}

// The callback runs without the job's lock: closing takes the transceiver's locks, and writes.
void ZrTransceiverConnection::Close() {
  StopTiming();
  onClose_(owner_, this);
}

// ---- Time limits -------------------------------------------------------------------------------

std::optional<std::int64_t> ZrTransceiverConnection::SilentSinceNs() {
  if (AwaitsAnswer()) return std::nullopt;
  return ExpiryNs() - static_cast<std::int64_t>(kTimeLimit) * 1000;
}

bool ZrTransceiverConnection::TellLate() {
  if (!limits_.MarkLate()) return false;
  Announce();
  return true;
}

bool ZrTransceiverConnection::HasExpired() {
  const std::int64_t now = owner_.Clock().MonotonicNs();
  if (now >= limits_.DueNs()) return true;
  if (AwaitsAnswer() && now < ExpiryNs() + kAnswerExtraTime) return false;
  return ZrJobWithTimeout::HasExpired();
}

bool ZrTransceiverConnection::AwaitsAnswer() { return turn_.InItem() && !SendPending(); }

std::int64_t ZrTransceiverConnection::NextExpiryNs() {
  return std::min(limits_.DueNs(), ExpiryNs() + (AwaitsAnswer() ? kAnswerExtraTime : 0));
}

// ---- Input -------------------------------------------------------------------------------------

void ZrTransceiverConnection::OnReceived(const char* data, std::size_t length) {
  if (data == nullptr || length == 0 || IsClosing()) return;
  Touch();
  if (turn_.Receive({data, length})) Announce();
  notices_.TellInput();
}

// On this thread when the server is free for it: one hand-over less on the way of a request. A pass
// of receiving tells each server of all its connections at once.
void ZrTransceiverConnection::Announce() {
  ZrReceivePass* const pass = ZrReceivePass::Current();
  if (pass != nullptr && pass->Announce(*this)) return;
  ZrJobEvent event;
  event.jobName = JobName();
  event.code = kZrEventDataArrived;
  ZrJobRegistry::Instance().Deliver(receiverName_, std::move(event));
}

void ZrTransceiverConnection::TakeReceived(ZrStringBuf& target) {
  if (turn_.Take(target)) owner_.ResumeReading(*this);
}

void ZrTransceiverConnection::TakeMore(ZrStringBuf& target) {
  if (turn_.TakeMore(target)) owner_.ResumeReading(*this);
}

void ZrTransceiverConnection::ExpectAnswers() { turn_.BecomeAsking(); }

void ZrTransceiverConnection::PutBack(ZrStringBuf& bytes) { turn_.PutBack(bytes); }

bool ZrTransceiverConnection::IsReadingPaused() { return turn_.PauseWhenFull(); }

int ZrTransceiverConnection::ReadFromSocket(ZrSocketIPvx& socket) {
  std::array<char, kReadSize> buffer;
  std::size_t count = 0;
  socket.receive(buffer.data(), buffer.size(), count);
  if (count > 0) {
    OnReceived(buffer.data(), count);
    return static_cast<int>(count);
  }
  if (socket.wouldBlock()) return 1;
  return socket.closed() ? 0 : -1;
}

// ---- The order of messages ---------------------------------------------------------------------

bool ZrTransceiverConnection::BeginItem() { return turn_.Begin(); }

ZrTransceiverConnection::AfterItem ZrTransceiverConnection::EndItem() {
  bool resume = false;
  const AfterItem next = turn_.End(resume);
  AfterEnd(next, resume);
  return next;
}

ZrTransceiverConnection::AfterItem ZrTransceiverConnection::EndItemAndClose(std::uint32_t item) {
  bool resume = false;
  const AfterItem next = turn_.EndAndClose(item, resume);
  AfterEnd(next, resume);
  return next;
}

void ZrTransceiverConnection::AfterEnd(AfterItem next, bool resume) {
  if (resume) owner_.ResumeReading(*this);
  if (next == AfterItem::kNothing) owner_.NoteProgress();
}

void ZrTransceiverConnection::CloseAfterItem() { turn_.CloseAfterItem(); }

bool ZrTransceiverConnection::TakeStalled() { return turn_.OutputWent(); }

bool ZrTransceiverConnection::IsBusy() { return turn_.InItem() || turn_.HasBytes(); }

// What was asked before the peer ended its side is still answered.
ZrTransceiverConnection::PeerEnd ZrTransceiverConnection::OnPeerFinished() {
  const bool busy = turn_.EndInput();
  peerWatch_->MarkEnded();
  notices_.TellInput();
  if (IsClosing()) return limits_.Lingers() ? PeerEnd::kRemove : PeerEnd::kKeep;
  if (busy) return PeerEnd::kKeep;
  return SendPending() ? PeerEnd::kFinish : PeerEnd::kRemove;
}

bool ZrTransceiverConnection::PeerFinished() { return turn_.InputEnded(); }

void ZrTransceiverConnection::BeginClosing() { turn_.Close(); }

// ---- Output ------------------------------------------------------------------------------------

void ZrTransceiverConnection::SendBuffer(std::unique_ptr<ZrStringBuf>& buffer) {
  Touch();
  if (!buffer || buffer->Empty()) return;
  output_.Add(std::move(*buffer));
  buffer = std::make_unique<ZrStringBuf>();
}

void ZrTransceiverConnection::SendBuffer(ZrStringBuf bytes) {
  Touch();
  output_.Add(std::move(bytes));
}

void ZrTransceiverConnection::QueueRest(ZrStringBuf& bytes) {
  if (!bytes.Empty()) output_.AddInFront(std::move(bytes));
}

void ZrTransceiverConnection::SendBytes(const char* data, std::size_t length,
                                        std::size_t& accepted) {
  Touch();
  accepted = length;
  ZrStringBuf bytes;
  bytes.Append({data, length});
  output_.Add(std::move(bytes));
}

void ZrTransceiverConnection::SendFileBytes(std::shared_ptr<const ZrFile> file,
                                            std::uint64_t offset, std::uint64_t length) {
  Touch();
  output_.AddFile(std::move(file), offset, length);
}

void ZrTransceiverConnection::PeekFront(std::string& text) { text = output_.FrontText(); }

void ZrTransceiverConnection::Consume(std::size_t count) { output_.Consume(count); }

// A file that turns out shorter than announced ends the connection behind its last byte.
std::string_view ZrTransceiverConnection::FrontView(const ZrWritePass& pass,
                                                    std::span<char> space) {
  const ZrSendQueue::Oldest front = output_.Front(space, pass.Files());
  if (front.kind == ZrSendQueue::Oldest::Kind::kCut) BeginClosing();
  return front.bytes;
}

ZrTransceiverConnection::Output ZrTransceiverConnection::WriteToSocket(ZrSocketIPvx& socket) {
  using Sent = ZrSendQueue::Sent;
  for (ZrWritePass pass(owner_.Clock());;) {
    std::size_t count = 0;
    const Sent sent = output_.SendFront(socket.Line(), count, pass.Files());
    if (count > 0) Touch();
    pass.Spend(count);
    switch (sent) {
      case Sent::kSome:
        if (!pass.IsOver()) continue;
        return Output::kMoved;
      case Sent::kRefused:
        return pass.Spent() > 0 ? Output::kMoved : Output::kRefused;
      case Sent::kDead:
        return Output::kDead;
      case Sent::kCut:
        BeginClosing();
        [[fallthrough]];
      case Sent::kAll:
      case Sent::kNotAtHand:
        return pass.Spent() > 0 ? Output::kMoved : Output::kIdle;
    }
  }
}

ZrTransceiverConnection::Output ZrTransceiverConnection::WriteThrough(ZrSocketIPvx& socket,
                                                                      ZrStringBuf& bytes) {
  const ZrIoResult result = socket.Line().Send(bytes.Unread());
  Touch();
  switch (result.status) {
    case ZrIoStatus::kDone:
      bytes.Consume(result.count);
      break;
    case ZrIoStatus::kWouldBlock:
      break;
    case ZrIoStatus::kClosed:
    case ZrIoStatus::kFailed:
      QueueRest(bytes);
      return Output::kDead;
  }
  QueueRest(bytes);
  return result.status == ZrIoStatus::kDone ? Output::kMoved : Output::kRefused;
}

const ZrClock& ZrTransceiverConnection::Clock() const { return owner_.Clock(); }

bool ZrTransceiverConnection::FinishOutput(ZrSocketIPvx&) { return true; }

bool ZrTransceiverConnection::WantsOutput() const { return SendPending(); }

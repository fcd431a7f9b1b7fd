#include "transceiver/connection.h"

#include <algorithm>
#include <array>
#include <utility>

#include "jobs/job_event.h"
#include "jobs/job_registry.h"
#include "net/tcp_socket.h"
#include "platform/socket.h"
#include "transceiver/transceiver.h"

namespace {

// What one pass writes at most: other connections have their turn, and what the peer reads next is
// still in the cache.
constexpr std::size_t kWriteBudget = 128 * 1024;
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
      onClose_(std::move(onClose)) {}

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

std::string ZrTransceiverConnection::HandlerName() {
  ZrLock hold(lock_);
  return handlerName_;
}

void ZrTransceiverConnection::Reset() {
  LeaveJoinedTask(AttachedTask());
  ZrLock writing(lock_);
  joined_ = false;
  {
    ZrLock hold(receiveLock_);
    received_.Clear();
    announced_ = false;
    hasReceived_ = false;
  }
  DropQueue();
}

// The callback runs without the job's lock: closing takes the transceiver's locks, and writes.
void ZrTransceiverConnection::Close() {
  StopTiming();
  onClose_(owner_, this);
}

// ---- Time limits -------------------------------------------------------------------------------

void ZrTransceiverConnection::BeginHead() {
  std::int64_t none = 0;
  if (headSince_.load(std::memory_order_relaxed) == 0) {
    headSince_.compare_exchange_strong(none, owner_.Clock().MonotonicNs());
  }
}

void ZrTransceiverConnection::EndHead() { headSince_.store(0, std::memory_order_relaxed); }

void ZrTransceiverConnection::NoteBody(std::uint64_t arrived) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const auto bytes = static_cast<std::int64_t>(arrived);
  bodyTime_ = std::max(kBodyTimeLimit, bytes / kBodyRate * kSecond);
  if (bodySince_.load(std::memory_order_relaxed) == 0) bodySince_ = owner_.Clock().MonotonicNs();
}

void ZrTransceiverConnection::BeginLinger() {
  lingerUntil_ = owner_.Clock().MonotonicNs() + kLingerTime;
}

bool ZrTransceiverConnection::HasExpired() {
  const std::int64_t now = owner_.Clock().MonotonicNs();
  const std::int64_t head = headSince_;
  if (head != 0 && now - head >= kHeadTimeLimit) return true;
  const std::int64_t body = bodySince_;
  if (body != 0 && now - body >= bodyTime_) return true;
  const std::int64_t linger = lingerUntil_;
  if (linger != 0 && now >= linger) return true;
  if (AwaitsAnswer() && now < ExpiryNs() + kAnswerExtraTime) return false;
  return ZrJobWithTimeout::HasExpired();
}

bool ZrTransceiverConnection::AwaitsAnswer() {
  ZrLock hold(receiveLock_);
  return busy_ && !IsClosing() && !SendPending();
}

std::int64_t ZrTransceiverConnection::NextExpiryNs() {
  std::int64_t due = ExpiryNs() + (AwaitsAnswer() ? kAnswerExtraTime : 0);
  if (const std::int64_t head = headSince_; head != 0) due = std::min(due, head + kHeadTimeLimit);
  if (const std::int64_t body = bodySince_; body != 0) due = std::min(due, body + bodyTime_);
  if (const std::int64_t linger = lingerUntil_; linger != 0) due = std::min(due, linger);
  return due;
}

// ---- Input -------------------------------------------------------------------------------------

void ZrTransceiverConnection::OnReceived(const char* data, std::size_t length) {
  if (data == nullptr || length == 0 || IsClosing()) return;
  Touch();
  bool announce = false;
  {
    ZrLock hold(receiveLock_);
    received_.Append({data, length});
    hasReceived_ = true;
    announce = !std::exchange(announced_, true);
  }
  if (announce) Announce();
}

// On this thread when the server is free for it: one hand-over less on the way of a request.
void ZrTransceiverConnection::Announce() {
  ZrJobEvent event;
  event.jobName = JobName();
  event.code = kZrEventDataArrived;
  ZrJobRegistry::Instance().Deliver(receiverName_, std::move(event));
}

// Buffers change hands instead of being copied, so that many messages in one buffer are taken apart
// in time linear in their bytes.
void ZrTransceiverConnection::TakeReceived(ZrStringBuf& target) {
  bool resume = false;
  {
    ZrLock hold(receiveLock_);
    if (target.Empty() && received_.Size() >= kReadSize) {
      target = std::move(received_);
    } else {
      target.Append(received_.Unread());
      received_.Clear();
    }
    announced_ = false;
    hasReceived_ = false;
    resume = !busy_ && TakeResume();
  }
  if (resume) owner_.ResumeReading(*this);
}

void ZrTransceiverConnection::ExpectAnswers() {
  ZrLock hold(receiveLock_);
  expectsAnswers_ = true;
}

void ZrTransceiverConnection::PutBack(ZrStringBuf& bytes) {
  if (bytes.Empty()) return;
  ZrLock hold(receiveLock_);
  bytes.Append(received_.Unread());
  received_ = std::move(bytes);
  hasReceived_ = true;
  stalled_ = true;  // no event will announce them
}

bool ZrTransceiverConnection::TakeResume() {
  if (!paused_ || received_.Size() > kReadMark) return false;
  paused_ = false;
  return true;
}

bool ZrTransceiverConnection::IsReadingPaused() {
  ZrLock hold(receiveLock_);
  paused_ = paused_ || received_.Size() > kReadMark;
  return received_.Size() > kReadMark;
}

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

bool ZrTransceiverConnection::BeginItem() {
  ZrLock hold(receiveLock_);
  if (IsClosing()) return false;
  if (busy_ || (!expectsAnswers_ && QueuedBytes() > kOutputMark)) {
    stalled_ = true;
    return false;
  }
  busy_ = true;
  return true;
}

// Reading goes on when the item is over, not when its bytes are taken: some of them may come back.
ZrTransceiverConnection::AfterItem ZrTransceiverConnection::EndItem() {
  AfterItem next = AfterItem::kNothing;
  bool resume = false;
  {
    ZrLock hold(receiveLock_);
    next = EndItemLocked();
    resume = TakeResume();
  }
  if (resume) owner_.ResumeReading(*this);
  if (next == AfterItem::kNothing) owner_.NoteProgress();
  return next;
}

ZrTransceiverConnection::AfterItem ZrTransceiverConnection::EndItemLocked() {
  busy_ = false;
  if (IsClosing()) return AfterItem::kNothing;
  if (closeAfterItem_) return AfterItem::kClose;
  if (received_.Empty()) {
    stalled_ = false;
    return peerFinished_ ? AfterItem::kClose : AfterItem::kNothing;
  }
  // Bytes that came meanwhile and were not turned away are announced by an event of their own;
  // those that wait for output to go are announced by whoever sends it.
  if (!stalled_ || QueuedBytes() > kOutputMark) return AfterItem::kNothing;
  stalled_ = false;
  return AfterItem::kWake;
}

void ZrTransceiverConnection::CloseAfterItem() {
  ZrLock hold(receiveLock_);
  closeAfterItem_ = true;
}

bool ZrTransceiverConnection::TakeStalled() {
  ZrLock hold(receiveLock_);
  if (!stalled_ || busy_ || QueuedBytes() > kOutputMark) return false;
  stalled_ = false;
  return !received_.Empty();
}

bool ZrTransceiverConnection::IsBusy() {
  ZrLock hold(receiveLock_);
  return busy_ || !received_.Empty();
}

// What was asked before the peer ended its side is still answered.
ZrTransceiverConnection::PeerEnd ZrTransceiverConnection::OnPeerFinished() {
  ZrLock hold(receiveLock_);
  peerFinished_ = true;
  if (IsClosing()) return lingerUntil_ != 0 ? PeerEnd::kRemove : PeerEnd::kKeep;
  if (busy_ || !received_.Empty()) return PeerEnd::kKeep;
  return SendPending() ? PeerEnd::kFinish : PeerEnd::kRemove;
}

bool ZrTransceiverConnection::PeerFinished() {
  ZrLock hold(receiveLock_);
  return peerFinished_;
}

void ZrTransceiverConnection::BeginClosing() {
  ZrLock hold(receiveLock_);
  closing_ = true;
  if (expectsAnswers_) return;
  received_.Clear();
  hasReceived_ = false;
}

// ---- Output ------------------------------------------------------------------------------------

void ZrTransceiverConnection::Queue(Piece piece) {
  const std::uint64_t size = piece.bytes.Size() + piece.remaining;
  Touch();
  if (size == 0) return;
  ZrLock hold(sendLock_);
  sendQueue_.push_back(std::move(piece));
  queuedBytes_ += size;
  sendPending_ = true;
}

void ZrTransceiverConnection::SendBuffer(std::unique_ptr<ZrStringBuf>& buffer) {
  if (!buffer || buffer->Empty()) return Touch();
  Queue({.bytes = std::move(*buffer), .file = nullptr});
  buffer = std::make_unique<ZrStringBuf>();
}

void ZrTransceiverConnection::SendBytes(const char* data, std::size_t length,
                                        std::size_t& accepted) {
  accepted = length;
  Queue({.bytes = ZrStringBuf(std::string(data, length)), .file = nullptr});
}

void ZrTransceiverConnection::SendFileBytes(std::shared_ptr<const ZrFile> file,
                                            std::uint64_t offset, std::uint64_t length) {
  Queue({.bytes = {}, .file = std::move(file), .offset = offset, .remaining = length});
}

void ZrTransceiverConnection::PeekFront(std::string& text) {
  ZrLock hold(sendLock_);
  text.clear();
  if (!sendQueue_.empty()) text = sendQueue_.front().bytes.Unread();
}

ZrTransceiverConnection::Piece* ZrTransceiverConnection::Front() {
  ZrLock hold(sendLock_);
  return sendQueue_.empty() ? nullptr : &sendQueue_.front();
}

void ZrTransceiverConnection::DropQueue() {
  std::deque<Piece> dropped;  // files and buffers are released without the lock
  ZrLock hold(sendLock_);
  dropped.swap(sendQueue_);
  queuedBytes_ = 0;
  sendPending_ = false;
}

// A file that turns out shorter than announced ends the connection behind its last byte: what comes
// next would be taken for the rest of it.
std::string_view ZrTransceiverConnection::FrontView() {
  Piece* front = Front();
  if (front == nullptr) return {};
  if (front->bytes.Empty()) {
    const auto want =
        static_cast<std::size_t>(std::min<std::uint64_t>(front->remaining, kFilePiece));
    const std::size_t got =
        front->file->ReadAt(front->offset, front->bytes.Prepare(want)).value_or(0);
    if (got == 0) {
      BeginClosing();
      DropQueue();
      return {};
    }
    front->bytes.Commit(got);
    front->offset += got;
    front->remaining -= got;
  }
  return front->bytes.Unread();
}

void ZrTransceiverConnection::Consume(std::size_t count) {
  Piece done;  // its file and buffer are released without the lock
  ZrLock hold(sendLock_);
  if (sendQueue_.empty()) return;
  Piece& front = sendQueue_.front();
  count = std::min(count, front.bytes.Size());
  front.bytes.Consume(count);
  queuedBytes_ -= count;
  if (!front.Done()) return;
  done = std::move(front);
  sendQueue_.pop_front();
  sendPending_ = !sendQueue_.empty();
}

ZrTransceiverConnection::Sent ZrTransceiverConnection::SendFront(ZrSocketIPvx& socket,
                                                                 std::size_t& count) {
  Piece* front = Front();
  if (front == nullptr) return Sent::kAll;
  if (!front->bytes.Empty()) {
    const std::string_view bytes = front->bytes.Unread();
    const bool all = socket.send(bytes.data(), bytes.size(), count) == ZrSocketResult::kSuccess;
    if (count > 0) Consume(count);
    if (all) return Sent::kSome;
    return socket.lastSendError() == 0 ? Sent::kRefused : Sent::kDead;
  }
  const auto want =
      static_cast<std::size_t>(std::min<std::uint64_t>(front->remaining, kWriteBudget));
  const ZrIoResult result =
      zr::SendFile(socket.primaryDescriptor(), *front->file, front->offset, want);
  if (result.status == ZrIoStatus::kWouldBlock) return Sent::kRefused;
  if (result.status != ZrIoStatus::kDone) return Sent::kDead;
  if (result.count == 0) {
    BeginClosing();
    DropQueue();
    return Sent::kAll;
  }
  count = result.count;
  front->offset += count;
  front->remaining -= count;
  ZrLock hold(sendLock_);
  queuedBytes_ -= count;
  if (front->Done()) sendQueue_.pop_front();
  sendPending_ = !sendQueue_.empty();
  return Sent::kSome;
}

bool ZrTransceiverConnection::WriteToSocket(ZrSocketIPvx& socket) {
  for (std::size_t total = 0; total < kWriteBudget;) {
    std::size_t count = 0;
    const Sent sent = SendFront(socket, count);
    if (count > 0) Touch();
    total += count;
    if (sent == Sent::kDead) return false;
    if (sent != Sent::kSome) break;
  }
  return true;
}

bool ZrTransceiverConnection::FinishOutput(ZrSocketIPvx&) { return true; }

bool ZrTransceiverConnection::WantsOutput() const { return SendPending(); }

#include "transceiver/tls_connection.h"

#include <array>
#include <string_view>
#include <utility>

#include "net/tcp_socket.h"

using Side = ZrTlsEngine::Side;

ZrTransceiverConnection_SSLAddon::ZrTransceiverConnection_SSLAddon(
    ssl_ctx_st* context, std::shared_ptr<ZrSocketIPvx> socket, ZrTransceiver& owner,
    std::string receiverName, std::string peerName, ZrServerCallback_t record,
    CloseCallback onClose)
    : ZrTransceiverConnection(owner, std::move(receiverName), std::move(peerName),
                              std::move(record), std::move(onClose)),
      socket_(std::move(socket)) {
  engine_.emplace(context, socket_->Line(), Side::kServer);
  Limits().BeginHead();  // a peer that never finishes the handshake goes like one that never ends
                         // its head
}

ZrTransceiverConnection_SSLAddon::ZrTransceiverConnection_SSLAddon(
    ssl_ctx_st* context, const ZrTlsPeer& peer, std::shared_ptr<ZrSocketIPvx> socket,
    ZrTransceiver& owner, std::string receiverName, std::string peerName, ZrServerCallback_t record,
    CloseCallback onClose)
    : ZrTransceiverConnection(owner, std::move(receiverName), std::move(peerName),
                              std::move(record), std::move(onClose)),
      socket_(std::move(socket)) {
  engine_.emplace(context, socket_->Line(), Side::kClient, peer.name);
  engine_->ConnectWithin(ZrTlsEngine::kHandshakeLimit, peer.cancelled);
  established_ = true;
  // What came right behind the handshake may have been read with its last bytes.
  bufferedInput_ = engine_->HasBufferedInput();
}

ZrTransceiverConnection_SSLAddon::~ZrTransceiverConnection_SSLAddon() {
  const ZrLock hold(lock_);
  engine_.reset();
}

// ---- Reading -----------------------------------------------------------------------------------

int ZrTransceiverConnection_SSLAddon::ReadFromSocket(ZrSocketIPvx& /*socket*/) {
  {
    const ZrLock hold(lock_);
    engine_->BeginTurn();
  }
  const int answer = ReadStep();
  const ZrLock hold(lock_);
  // A write that had to wait for input goes on, or is seen never to do so. Reading has output of
  // its own (the handshake), some of which the socket may have refused.
  const bool writing = answer >= 0 && writeWantsRead_ && established_;
  if (writing && WriteStep() == Output::kDead) return -1;
  readAffectsOutput_ = writing || WantsOutput();
  return answer;
}

// The lock is held for one record at a time and never while the bytes are handed on: the server
// that is told of them may answer on this very thread, through this connection.
int ZrTransceiverConnection_SSLAddon::ReadStep() {
  std::array<char, ZrTlsEngine::kRecord> buffer;
  int total = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::size_t count = 0;
    int answer = 0;
    const Next next = ReadRecord(buffer, count, answer);
    if (count > 0) OnReceived(buffer.data(), count);
    total += static_cast<int>(count);
    if (next == Next::kStop) {
      // An end or a failure behind bytes is told by the next read, which needs no readiness.
      if (answer <= 0 && total > 0) bufferedInput_.store(true, std::memory_order_release);
      return total > 0 ? total : answer;
    }
    if (IsReadingPaused()) break;
  }
  return total;
}

ZrTransceiverConnection_SSLAddon::Next ZrTransceiverConnection_SSLAddon::ReadRecord(
    std::span<char> target, std::size_t& count, int& answer) {
  const ZrLock hold(lock_);
  const ZrTlsReadResult result = engine_->Read(target);
  if (!established_ && engine_->IsEstablished()) {
    established_ = true;
    Limits().EndHead();
  }
  count = result.count;
  answer = 1;
  bool again = false;  // the next pass finds something, whatever the socket says
  Next next = Next::kStop;
  switch (result.status) {
    case ZrTlsReadStatus::kDone:
      // Less than a full record is the last one that was there, unless TLS has begun the next.
      again = engine_->HasBufferedInput();
      if (again || count == ZrTlsEngine::kRecord) next = Next::kGoOn;
      break;
    case ZrTlsReadStatus::kWantRead:
      break;
    case ZrTlsReadStatus::kAgain:
      again = true;
      break;
    case ZrTlsReadStatus::kEnded:
      answer = 0;
      break;
    case ZrTlsReadStatus::kFailed:
      answer = -1;
      break;
  }
  bufferedInput_.store(again, std::memory_order_release);
  return next;
}

ZrTlsEngine::Facts ZrTransceiverConnection_SSLAddon::Agreed() {
  ZrLock hold(lock_);
  return engine_ ? engine_->Agreed() : ZrTlsEngine::Facts{};
}

// ---- Writing -----------------------------------------------------------------------------------

ZrTransceiverConnection::Output ZrTransceiverConnection_SSLAddon::WriteToSocket(
    ZrSocketIPvx& /*socket*/) {
  engine_->BeginTurn();
  return WriteStep();
}

// The bytes stay at the front of the queue until TLS has accepted them, so a step that has to be
// repeated passes the same ones.
ZrTransceiverConnection::Output ZrTransceiverConnection_SSLAddon::WriteStep() {
  using Status = ZrTlsWriteStatus;
  const std::uint64_t before = engine_->Sent();
  Status status = Status::kDone;
  std::array<char, ZrTlsEngine::kRecord> space;
  for (ZrWritePass pass(Clock(), ZrWritePass::kEncryptedBudget);
       !pass.IsOver() && status == Status::kDone;) {
    const std::string_view bytes = FrontView(pass, space).substr(0, ZrTlsEngine::kRecord);
    if (bytes.empty()) break;
    const ZrTlsWriteResult result = engine_->Write(bytes, QueuedBytes() > bytes.size());
    status = result.status;
    if (status == Status::kDone) Consume(result.count);
    pass.Spend(result.count);
  }
  return EndWriting(status, before);
}

ZrTransceiverConnection::Output ZrTransceiverConnection_SSLAddon::WriteThrough(
    ZrSocketIPvx& /*socket*/, ZrStringBuf& bytes) {
  using Status = ZrTlsWriteStatus;
  engine_->BeginTurn();
  const std::uint64_t before = engine_->Sent();
  Status status = Status::kDone;
  while (!bytes.Empty() && status == Status::kDone) {
    const std::string_view record = bytes.Unread().substr(0, ZrTlsEngine::kRecord);
    const ZrTlsWriteResult result = engine_->Write(record, bytes.Size() > record.size());
    status = result.status;
    if (status == Status::kDone) bytes.Consume(result.count);
  }
  QueueRest(bytes);
  return EndWriting(status, before);
}

ZrTransceiverConnection::Output ZrTransceiverConnection_SSLAddon::EndWriting(
    ZrTlsWriteStatus status, std::uint64_t before) {
  using Status = ZrTlsWriteStatus;
  const Status flushed = engine_->Flush();
  if (engine_->Sent() != before) Touch();
  if (status == Status::kFailed || flushed == Status::kFailed) return Output::kDead;
  writeWantsRead_ = status == Status::kWantRead;
  if (engine_->Sent() != before) return Output::kMoved;
  return status == Status::kWantWrite || flushed == Status::kWantWrite ? Output::kRefused
                                                                       : Output::kIdle;
}

bool ZrTransceiverConnection_SSLAddon::FinishOutput(ZrSocketIPvx& /*socket*/) {
  return engine_->Shutdown() != ZrTlsWriteStatus::kWantWrite;
}

bool ZrTransceiverConnection_SSLAddon::WantsOutput() const {
  return engine_->Unsent() > 0 || (SendPending() && !writeWantsRead_);
}

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
  engine_.emplace(context, socket_->primaryDescriptor(), Side::kServer);
  BeginHead();  // a peer that never finishes the handshake goes like one that never ends its head
}

ZrTransceiverConnection_SSLAddon::ZrTransceiverConnection_SSLAddon(
    ssl_ctx_st* context, const ZrTlsPeer& peer, std::shared_ptr<ZrSocketIPvx> socket,
    ZrTransceiver& owner, std::string receiverName, std::string peerName, ZrServerCallback_t record,
    CloseCallback onClose)
    : ZrTransceiverConnection(owner, std::move(receiverName), std::move(peerName),
                              std::move(record), std::move(onClose)),
      socket_(std::move(socket)) {
  engine_.emplace(context, socket_->primaryDescriptor(), Side::kClient, peer.name);
  engine_->ConnectWithin(ZrTlsEngine::kHandshakeLimit, peer.cancelled);
  established_ = true;
}

ZrTransceiverConnection_SSLAddon::~ZrTransceiverConnection_SSLAddon() {
  const ZrLock hold(lock_);
  engine_.reset();
}

// ---- Reading -----------------------------------------------------------------------------------

int ZrTransceiverConnection_SSLAddon::ReadFromSocket(ZrSocketIPvx& /*socket*/) {
  {
    const ZrLock hold(lock_);
    // A write that waited for this input comes first; what else arrived is read in the next pass.
    if (writeWantsRead_ && !readWantsWrite_) {
      readAffectsOutput_ = true;
      return WriteStep() ? 1 : -1;
    }
  }
  const int answer = ReadStep();
  const ZrLock hold(lock_);
  // Reading has output of its own (the handshake), some of which the socket may have refused; and
  // its end lets a write go on that had to wait for it.
  if (answer > 0 && writeWantsRead_ && established_ && !WriteStep()) return -1;
  readAffectsOutput_ = WantsOutput();
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
  readWantsRead_ = readWantsWrite_ = false;
  const ZrTlsResult result = engine_->Read(target);
  if (!established_ && engine_->IsEstablished()) {
    established_ = true;
    EndHead();
  }
  count = result.count;
  const bool more = result.status == ZrTlsStatus::kDone && engine_->HasBufferedInput();
  bufferedInput_.store(more, std::memory_order_release);
  answer = 1;
  switch (result.status) {
    case ZrTlsStatus::kDone:
      // Less than a full record is the last one that was there, unless TLS has begun the next.
      return more || count == ZrTlsEngine::kRecord ? Next::kGoOn : Next::kStop;
    case ZrTlsStatus::kWantRead:
      readWantsRead_ = true;
      break;
    case ZrTlsStatus::kWantWrite:
      readWantsWrite_ = true;
      break;
    case ZrTlsStatus::kClosed:
      answer = 0;
      break;
    case ZrTlsStatus::kFailed:
      answer = -1;
      break;
  }
  return Next::kStop;
}

// ---- Writing -----------------------------------------------------------------------------------

bool ZrTransceiverConnection_SSLAddon::WriteToSocket(ZrSocketIPvx& /*socket*/) {
  const std::uint64_t before = engine_->Sent();
  // A read that waited for room gets it here and is repeated by the receive job.
  if (readWantsWrite_ && engine_->Flush() == ZrTlsStatus::kDone) {
    readWantsWrite_ = false;
    bufferedInput_.store(true, std::memory_order_release);
  }
  const bool alive = WriteStep();
  if (engine_->Sent() != before) Touch();
  return alive;
}

// The bytes stay at the front of the queue until TLS has accepted them, so a step that has to be
// repeated passes the same ones.
bool ZrTransceiverConnection_SSLAddon::WriteStep() {
  writeWantsRead_ = writeWantsWrite_ = false;
  for (int round = 0; round < kRounds; ++round) {
    const std::string_view bytes = FrontView().substr(0, ZrTlsEngine::kRecord);
    if (bytes.empty()) break;
    const ZrTlsResult result = engine_->Write(bytes, QueuedBytes() > bytes.size());
    if (result.status == ZrTlsStatus::kFailed) return false;
    writeWantsRead_ = result.status == ZrTlsStatus::kWantRead;
    writeWantsWrite_ = result.status == ZrTlsStatus::kWantWrite;
    if (result.status != ZrTlsStatus::kDone) break;
    Consume(result.count);
  }
  const ZrTlsStatus flushed = engine_->Flush();
  writeWantsWrite_ = writeWantsWrite_ || flushed == ZrTlsStatus::kWantWrite;
  return flushed != ZrTlsStatus::kFailed;
}

bool ZrTransceiverConnection_SSLAddon::FinishOutput(ZrSocketIPvx& /*socket*/) {
  return engine_->Shutdown() != ZrTlsStatus::kWantWrite;
}

bool ZrTransceiverConnection_SSLAddon::WantsOutput() const {
  return readWantsWrite_ || writeWantsWrite_ || engine_->Unsent() > 0 ||
         (SendPending() && !writeWantsRead_);
}

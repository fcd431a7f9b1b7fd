#include "transceiver/answer_stream.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "base/string_buffer.h"
#include "http/message_head.h"
#include "transceiver/connection.h"
#include "transceiver/message_ends.h"
#include "transceiver/message_handler.h"
#include "transceiver/server_link.h"
#include "transceiver/transceiver.h"

namespace {

constexpr std::string_view kLastChunk = "0\r\n\r\n";

// In one piece, so that a small one is one write.
ZrStringBuf Chunk(std::string_view bytes) {
  std::array<char, 20> size;
  const auto end = std::to_chars(size.begin(), size.end(), bytes.size(), 16).ptr;
  ZrStringBuf chunk;
  chunk.Reserve(bytes.size() + size.size() + 4);
  chunk.Append({size.data(), static_cast<std::size_t>(end - size.data())});
  chunk.Append("\r\n");
  chunk.Append(bytes);
  chunk.Append("\r\n");
  return chunk;
}

}  // namespace

/// The way to the connection, for the length of one call: while it stands, the handler is not taken
/// from its transceiver. Nothing when one of them has gone.
class ZrAnswerStream::Reach {
 public:
  explicit Reach(ZrAnswerStream& stream)
      : handler_(stream.handler_.get()),
        transceiver_(handler_ == nullptr ? nullptr : handler_->EnterTransceiver()) {
    if (transceiver_ == nullptr || !stream.ends_) return;
    server = stream.ends_->server.lock();
    connection = stream.ends_->connection.lock();
  }
  ~Reach() {
    connection = nullptr;
    server = nullptr;
    if (transceiver_ != nullptr) handler_->LeaveTransceiver();
  }
  Reach(const Reach&) = delete;
  Reach& operator=(const Reach&) = delete;

  bool Open() const { return server && connection && connection->IsListed(); }
  void Flush() { transceiver_->FlushConnection(*connection); }

  std::shared_ptr<ZrServerLink> server;
  std::shared_ptr<ZrTransceiverConnection> connection;

 private:
  ZrMessageHandler* const handler_;
  ZrTransceiver* const transceiver_;
};

ZrAnswerStream::ZrAnswerStream(std::shared_ptr<ZrMessageHandler> handler, const ZrXHeader& request,
                               Notices notices)
    : handler_(std::move(handler)),
      ends_(request.ends),
      peer_(request.peerWatch),
      room_(std::move(notices.room)),
      gone_(notices.gone ? ZrPeerSubscription(peer_, std::move(notices.gone))
                         : ZrPeerSubscription()) {}

ZrAnswerStream::~ZrAnswerStream() { Abort(); }

bool ZrAnswerStream::Begin(std::shared_ptr<ZrXHeader> head,
                           std::unique_ptr<ZrBodyEncoder> encoder) {
  Reach reach(*this);
  if (!reach.Open()) return false;
  head_ = std::move(head);
  encoder_ = std::move(encoder);
  if (encoder_) head_->lengthKnown = false;
  head_->streamed = true;
  head_->SetState(zr::kHeadStateComplete);
  zr::JoinTask(reach.server->ServerJob(), *head_, ends_->target);
  reach.connection->Attach(head_->target);
  auto out = std::make_unique<ZrStringBuf>();
  if (!head_->WriteHead(*out)) return false;
  remaining_ = head_->contentLength;
  if (!head_->semantics->SendsBody(*head_))
    mode_ = Mode::kEmpty;
  else if (head_->lengthKnown)
    mode_ = Mode::kLength;
  else
    mode_ = head_->oldVersion ? Mode::kToClose : Mode::kChunks;
  sent_ = out->Size();
  reach.connection->SendBuffer(out);
  if (head_->closeRequested) reach.connection->CloseAfterItem();
  reach.connection->Notices().OnRoom(room_);
  return true;
}

bool ZrAnswerStream::Write(std::string_view piece) {
  Reach reach(*this);
  if (!reach.Open()) return false;
  switch (mode_) {
    case Mode::kNone:
    case Mode::kEmpty:
      return false;
    case Mode::kLength: {
      const std::size_t most =
          static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, piece.size()));
      remaining_ -= most;
      return Send(reach, piece.substr(0, most)) && remaining_ > 0;
    }
    case Mode::kChunks:
    case Mode::kToClose:
      break;
  }
  if (!encoder_) return Send(reach, piece);
  ZrStringBuf encoded;
  if (!piece.empty()) encoder_->Encode(piece, encoded);
  return Send(reach, encoded.Unread());
}

bool ZrAnswerStream::Send(Reach& reach, std::string_view bytes) {
  if (bytes.empty()) return true;
  auto out = std::make_unique<ZrStringBuf>();
  if (mode_ == Mode::kChunks)
    *out = Chunk(bytes);
  else
    out->Append(bytes);
  sent_ += out->Size();
  reach.connection->SendBuffer(out);
  reach.Flush();
  return reach.Open();
}

void ZrAnswerStream::Flush() {
  Reach reach(*this);
  if (reach.Open()) reach.Flush();
}

bool ZrAnswerStream::MustWait() {
  Reach reach(*this);
  return reach.Open() && mode_ != Mode::kNone &&
         reach.connection->Notices().AwaitRoom(kFullMark, kRoomMark);
}

void ZrAnswerStream::End() {
  try {
    if (encoder_) {
      Reach reach(*this);
      ZrStringBuf rest;
      encoder_->Finish(rest);
      if (reach.Open()) Send(reach, rest.Unread());
    }
  } catch (...) {
    return Finish(false);  // out of memory: the end of the body is missing
  }
  Finish(mode_ != Mode::kLength || remaining_ == 0);
}

void ZrAnswerStream::Abort() { Finish(false); }

void ZrAnswerStream::Finish(bool whole) {
  const Mode mode = std::exchange(mode_, Mode::kNone);
  if (mode == Mode::kNone) return;
  encoder_ = nullptr;
  Reach reach(*this);
  if (!reach.connection || !reach.server) return;
  reach.connection->Notices().OnRoom({});
  auto ended = ZrServerLink::Ended::kWhole;
  if (!whole && mode != Mode::kEmpty) {
    // A client that takes the end of the connection for that of the body must see another one.
    ended = mode == Mode::kToClose ? ZrServerLink::Ended::kReset : ZrServerLink::Ended::kCut;
  } else if (reach.Open()) {
    if (mode == Mode::kChunks) {
      std::size_t accepted = 0;
      reach.connection->SendBytes(kLastChunk.data(), kLastChunk.size(), accepted);
      sent_ += accepted;
    }
    reach.Flush();
  }
  reach.server->EndAnswer(reach.connection, head_, sent_, ended);
}

#pragma once
// An answer whose body is written piece by piece while it is made: the head first, then as many
// pieces as there are, then the end. Programs answer so, and whoever else has a long answer, or one
// that never ends. It stands between the maker of the body and the connection: it frames the pieces
// as the client understands them, says when to pause because the client does not read, and says
// when the client has gone.
//
//   the maker                              the stream
//   Begin(head) ------------------------>  queues the head: the request counts as answered
//   Write(piece), Write(piece), ... ---->  frames, queues and sends each
//        MustWait()? then wait for  <----  `room`, from the thread that sends
//        stop making it             <----  `gone`, from the thread that found out; Write() says no
//   End() or Abort() -------------------->  the request is over, the connection's next one begins
//
// How the end is marked follows from the request and the head, and is nobody's business but the
// stream's: a length where the head says one, chunks for HTTP/1.1, the end of the connection for
// HTTP/1.0, nothing where the answer has no body. What is not ended with End() never looks whole to
// the client: a length or last chunk is missing, or the connection is reset.
//
// For requests of standard semantics (IsStandard()); minimal ones have their length in the head.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "http/body_encoder.h"
#include "http/peer_watch.h"
#include "transceiver/fwd.h"

class ZrStringBuf;

/// Threads: one at a time; the notices come from others. Holds the request handler, and neither
/// connection nor server. May outlive everything: then all that it does is nothing.
class ZrAnswerStream {
 public:
  /// The body pauses while more bytes than that wait to be sent ...
  static constexpr std::uint64_t kFullMark = 256 * 1024;
  /// ... until at most so many do.
  static constexpr std::uint64_t kRoomMark = 64 * 1024;

  /// What its maker is told. Called on threads that send and receive for all, with no lock held,
  /// and possibly for a last time while the stream is ended or destroyed by another thread: they do
  /// not wait, do not call the stream, and own (or hold weakly) what they touch. Either may be
  /// empty.
  struct Notices {
    std::function<void()> room;  ///< after MustWait() said yes, once: it may go on
    std::function<void()> gone;  ///< nobody will read any more of it; once
  };

  /// For the answer to that request, which was not answered yet and which the handler was given;
  /// without handler, or when that has no transceiver, nobody is reached. A stream that was not
  /// begun does nothing: the request is then still to be answered.
  ZrAnswerStream(std::shared_ptr<ZrMessageHandler> handler, const ZrXHeader& request,
                 Notices notices = {});
  /// Aborts what was begun and not ended.
  ~ZrAnswerStream();
  ZrAnswerStream(const ZrAnswerStream&) = delete;
  ZrAnswerStream& operator=(const ZrAnswerStream&) = delete;

  /// Queues the head, made with MakeResponse(); status and fields as it has them, no body. With
  /// `lengthKnown`, contentLength says how many bytes follow: pieces beyond them are dropped. The
  /// encoder, where there is one, gets the body and its output is sent; the head's fields say so
  /// already, and its length is unknown. The head goes out with the first piece or by Flush(). No:
  /// there is nobody to send it to, and the stream is over. Called once.
  bool Begin(std::shared_ptr<ZrXHeader> head, std::unique_ptr<ZrBodyEncoder> encoder = nullptr);
  /// Sends the piece; an empty one is nothing. It is taken whole also while MustWait(). No: the
  /// client has gone, or needs no more of it (a HEAD request, all of the length): End() it then.
  bool Write(std::string_view piece);
  /// Sends what is queued.
  void Flush();
  /// More than kFullMark waits to be sent: the next piece is to be made when `room` says so. A
  /// client that reads nothing for long is given up by its connection, which ends with `gone`.
  bool MustWait();
  /// Nobody reads it (any more).
  bool Gone() const noexcept { return peer_ && peer_->Gone(); }
  bool Begun() const noexcept { return mode_ != Mode::kNone; }

  /// The body is complete. A shorter one than the head's length ends like Abort().
  void End();
  /// There will be no more of the body, and the client is to see that something is missing.
  void Abort();

 private:
  enum class Mode {
    kNone,     // not begun, or over
    kEmpty,    // no body belongs to it
    kLength,   // remaining_ more bytes
    kChunks,   // until the last chunk
    kToClose,  // until the connection ends
  };
  class Reach;

  bool Send(Reach& reach, std::string_view bytes);
  void Finish(bool whole);

  const std::shared_ptr<ZrMessageHandler> handler_;
  const std::shared_ptr<const ZrMessageEnds> ends_;
  const std::shared_ptr<ZrPeerWatch> peer_;
  const std::function<void()> room_;
  ZrPeerSubscription gone_;
  std::shared_ptr<ZrXHeader> head_;
  std::unique_ptr<ZrBodyEncoder> encoder_;
  Mode mode_ = Mode::kNone;
  std::uint64_t remaining_ = 0;
  std::uint64_t sent_ = 0;  // bytes, head and frames included, for the log
};

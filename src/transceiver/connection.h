#pragma once
// One TCP connection: the turn (what arrived, and whose turn it is to make a message of it) and the
// queue of what is to be sent. The transceiver's receive job fills the one and, with the threads
// that answer, drains the other; the server that made the connection turns bytes into messages.
// What is here is the way between the two and the socket, and the connection's time limits.
//
// A variant with another way to the socket (TLS) overrides ReadFromSocket(), WriteToSocket(),
// FinishOutput() and WantsOutput(), and nothing else.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/server_callback.h"
#include "base/string_buffer.h"
#include "http/peer_watch.h"
#include "jobs/job_with_timeout.h"
#include "net/send_queue.h"
#include "platform/file.h"
#include "platform/sync.h"
#include "transceiver/connection_limits.h"
#include "transceiver/flow_notices.h"
#include "transceiver/fwd.h"
#include "transceiver/turn.h"
#include "transceiver/write_pass.h"

class ZrSocketIPvx;
struct ZrIoRegistration;

/// Threads: any, where nothing else is said. Held in shared ownership.
class ZrTransceiverConnection : public ZrJobWithTimeout {
 public:
  /// Closes the connection; called by Close() with the connection's job lock held.
  using CloseCallback = std::function<void(ZrTransceiver&, ZrTransceiverConnection*)>;

  /// Without traffic for that long (microseconds) the connection is closed.
  static constexpr std::uint64_t kTimeLimit = 115'000'000;
  /// While a request is in progress the silence is not the peer's: only after that long
  /// (nanoseconds) is its answer given up. Programs may run for 300 s, and wait their turn before
  /// that.
  static constexpr std::int64_t kAnswerTimeLimit = 900'000'000'000;
  /// Bytes that one receive takes at most (plain connections).
  static constexpr std::size_t kReadSize = 2048;
  static constexpr std::size_t kReadMark = ZrTurn::kReadMark;

  /// The record describes the peer; `onClose` must be set. The owner outlives the connection's
  /// registration with it. The receiver is the server's job name, the peer name its owner's.
  ZrTransceiverConnection(ZrTransceiver& owner, std::string receiverName, std::string peerName,
                          ZrServerCallback_t record, CloseCallback onClose);
  ~ZrTransceiverConnection() override;

  bool Attach(std::string_view task) override;
  bool Detach(std::string_view task) override;
  /// Whether the time limit or the limit of an incomplete head has passed. A request in progress
  /// with nothing to send has kAnswerTimeLimit instead.
  bool HasExpired() override;

  /// Leaves the joined task, forgets received bytes and everything queued.
  virtual void Reset();
  /// Ends the connection through the callback of construction: reading stops, what is queued is
  /// still sent, then the socket is closed. Clears the time limit's `timing`. Throws
  /// std::bad_function_call without a callback.
  virtual void Close();
  /// Queues the buffer's bytes and leaves an empty buffer behind. Nothing is sent before the
  /// transceiver's WakeSender() or FlushConnection() runs.
  virtual void SendBuffer(std::unique_ptr<ZrStringBuf>& buffer);
  /// Queues bytes; sending as for the other form.
  void SendBuffer(ZrStringBuf bytes);
  /// Queues a copy of the bytes; `accepted` gets their number. Sending as for SendBuffer().
  virtual void SendBytes(const char* data, std::size_t length, std::size_t& accepted);
  /// Copies the unsent bytes of the oldest queued buffer, without consuming them.
  virtual void PeekFront(std::string& text);
  /// Drops bytes that the socket took from the front of the queue.
  virtual void Consume(std::size_t count) ZR_REQUIRES(lock_);
  /// What a pass of writing came to.
  enum class Output {
    kMoved,    ///< bytes went out; there may be more
    kIdle,     ///< there was nothing that could have been given to the socket
    kRefused,  ///< the socket took nothing: wait for room
    kDead,     ///< the connection is broken: remove it
  };
  /// Gives the socket what it takes of the queue now.
  virtual Output WriteToSocket(ZrSocketIPvx& socket) ZR_REQUIRES(lock_);
  /// Sends bytes while nothing is queued, without a way through the queue: what the socket does not
  /// take now stands at the front of it then. The buffer is empty afterwards.
  virtual Output WriteThrough(ZrSocketIPvx& socket, ZrStringBuf& bytes) ZR_REQUIRES(lock_);
  /// Stores received bytes, restarts the time limit and tells the receiver job with one event of
  /// code 8 per batch that it has not taken yet. A closing connection drops the bytes.
  virtual void OnReceived(const char* data, std::size_t length);
  /// One pass of receiving; called by the receive job. Positive: the connection lives (also when
  /// nothing was there); 0: the peer ended its side; negative: the connection is dead.
  virtual int ReadFromSocket(ZrSocketIPvx& socket);
  /// Moves all received bytes to the end of the target.
  virtual void TakeReceived(ZrStringBuf& target);

  /// Called once when everything queued on a closing connection was sent, before the socket is shut
  /// down for sending. No: it needs more room on the socket and is called again when there is some.
  virtual bool FinishOutput(ZrSocketIPvx& socket) ZR_REQUIRES(lock_);
  /// Whether the socket's room for output is to be waited for: it refused bytes, or some were not
  /// tried yet.
  virtual bool WantsOutput() const ZR_REQUIRES(lock_);
  /// Whether bytes may be read without the socket becoming readable.
  virtual bool HasBufferedInput() const { return false; }
  /// Whether it still agrees with its peer on how to speak: reading it may take long, and nothing
  /// that came before waits on it.
  virtual bool IsOpening() const { return false; }
  /// Whether a pass of receiving can change what WantsOutput() answers.
  virtual bool ReadAffectsOutput() const { return false; }

  /// Queues `length` bytes of a file from that offset. They are read as the socket takes them; a
  /// file that turns out shorter closes the connection behind its last byte.
  void SendFileBytes(std::shared_ptr<const ZrFile> file, std::uint64_t offset,
                     std::uint64_t length);
  /// What arrives from now on are answers to what is sent here: they are taken also while much is
  /// still to be sent, and not dropped when the connection closes: TakeReceived() still gives them.
  void ExpectAnswers();
  /// Puts bytes back in front of what was received, as they belong to the next message. The buffer
  /// is left empty.
  void PutBack(ZrStringBuf& bytes);
  /// The record given at construction; it never changes.
  const std::shared_ptr<const ZrServerCallback_t>& PeerRecord() const { return record_; }
  /// Tells the requests of this connection when it has gone.
  const std::shared_ptr<ZrPeerWatch>& PeerWatch() const { return peerWatch_; }
  const std::string& ReceiverName() const { return receiverName_; }
  const std::string& ServerOwnerName() const { return peerName_; }
  /// The joined task the connection is attached to; empty before the first Attach().
  std::string JoinedTaskName();
  /// Whether it is attached to that joined task, or to none yet.
  bool IsIn(std::string_view task);
  /// What its server keeps of it for the connection's life; nothing before the server has set it.
  struct ServerPart {
    virtual ~ServerPart() = default;
  };
  ServerPart* KeptByServer() const { return keptByServer_.load(std::memory_order_acquire); }
  /// Sets that unless it is set; returns what it is.
  std::shared_ptr<ServerPart> KeepForServer(std::shared_ptr<ServerPart> part);
  bool HasReceived() const { return turn_.HasBytes(); }
  bool SendPending() const { return output_.Pending(); }
  /// Bytes that are queued and not yet sent, files included.
  std::uint64_t QueuedBytes() const { return output_.Bytes(); }

  // The order of messages on one connection. A server brackets the handling of received bytes with
  // BeginItem() and EndItem(); for a request that was handed out, the end comes with its answer.

  /// What the caller of EndItem() has to do next: nothing; wake, as bytes wait that no event will
  /// announce (queue the connection again); close it, as was asked for, or because the peer has
  /// ended its side and nothing is left.
  using AfterItem = ZrTurn::After;
  /// Asks for the right to take bytes and make a message of them. No while a request is in
  /// progress, the peer leaves its answers unread, or the connection is closing; the bytes stay and
  /// the server is told again when that has changed.
  bool BeginItem();
  AfterItem EndItem();
  /// The item in progress, for the thread that has begun it: an answer, which any thread may give,
  /// ends it, and then the next one may begin elsewhere at once.
  std::uint32_t Item() const { return turn_.Item(); }
  bool IsInItem() const { return turn_.InItem(); }
  /// Ends that item unless its answer has done so, and has the connection close behind it, or
  /// behind the next one when that has begun meanwhile.
  AfterItem EndItemAndClose(std::uint32_t item);
  /// The connection is to be closed when the item in progress has ended.
  void CloseAfterItem();
  /// The times that its peer has beside that for silence.
  ZrConnectionLimits& Limits() { return limits_; }
  /// Who is told of room for output, and of input within the item.
  ZrFlowNotices& Notices() { return notices_; }
  /// Moves all received bytes to the end of the target, within the item; reading goes on.
  void TakeMore(ZrStringBuf& target);

  // For the transceiver.

  enum class PeerEnd { kRemove, kFinish, kKeep };
  /// The peer ended its side: what is to become of the connection now.
  PeerEnd OnPeerFinished();
  bool PeerFinished();
  /// A message is in progress or bytes wait to become one.
  bool IsBusy();
  /// Turns the connection to closing: no more bytes are taken in.
  void BeginClosing();
  bool IsClosing() const { return turn_.IsClosing(); }
  /// More is waiting to be taken than reading goes on with.
  bool IsReadingPaused();
  /// Reading pauses for want of memory; ResumeReading() is called when bytes were taken.
  void PauseReading() { turn_.Pause(); }
  /// What it has received and not handed out, the body of an incomplete message included, and what
  /// waits in memory to be sent, in bytes.
  std::uint64_t HeldInput() const { return turn_.Size() + limits_.HeldBody(); }
  std::uint64_t HeldOutput() const { return output_.Held(); }
  /// Monotonic time (nanoseconds) since which its peer has neither sent nor taken anything; nothing
  /// while the silence is not the peer's, as an answer is being made.
  std::optional<std::int64_t> SilentSinceNs();
  /// After output went: whether the server waits for that and must be told. Answers yes once.
  bool TakeStalled();
  /// Monotonic time (nanoseconds) from which on HasExpired() answers yes, as things stand.
  std::int64_t NextExpiryNs();
  /// Its time limit has passed: tells the server of a message that did not come in time and whose
  /// rules have an answer for that. No: there is none.
  bool TellLate();
  /// Its time limit has passed: it is not drained but goes at once.
  void MarkExpired() { expired_.store(true, std::memory_order_release); }
  /// The transceiver knows it and finds it by name.
  void SetListed(bool listed) { listed_.store(listed, std::memory_order_release); }
  bool IsListed() const { return listed_.load(std::memory_order_acquire); }
  bool IsExpired() const { return expired_.load(std::memory_order_acquire); }
  /// Deliver the event for received bytes. The caller holds no lock.
  void Announce();
  void DropQueue() { output_.Clear(); }  ///< Forgets everything queued.
  /// What the I/O loops keep of it; nothing while it is not registered with them.
  ZrIoRegistration* Registration() const ZR_REQUIRES(lock_) { return registration_.get(); }
  std::shared_ptr<ZrIoRegistration> Bound() const ZR_REQUIRES(lock_) { return registration_; }
  /// Sets that; returns what it was.
  std::shared_ptr<ZrIoRegistration> Bind(std::shared_ptr<ZrIoRegistration> registration)
      ZR_REQUIRES(lock_) {
    return std::exchange(registration_, std::move(registration));
  }

 protected:
  /// The oldest queued bytes as a view, those of a file read into `space`. Empty when nothing is
  /// queued that the pass may take. Valid until Consume(); later additions do not move them.
  std::string_view FrontView(const ZrWritePass& pass, std::span<char> space) ZR_REQUIRES(lock_);
  const ZrClock& Clock() const;
  /// Queues what a pass of WriteThrough() has left.
  void QueueRest(ZrStringBuf& bytes) ZR_REQUIRES(lock_);

 private:
  bool AwaitsAnswer();
  void AfterEnd(AfterItem next, bool resume);

  // Constant after construction.
  ZrTransceiver& owner_;
  const std::string receiverName_;
  const std::string peerName_;
  const std::shared_ptr<const ZrServerCallback_t> record_;
  const CloseCallback onClose_;
  const std::shared_ptr<ZrPeerWatch> peerWatch_ = std::make_shared<ZrPeerWatch>();

  std::atomic<ServerPart*> keptByServer_{nullptr};
  std::shared_ptr<ServerPart> serverPart_ ZR_GUARDED_BY(lock_);  // the same, once set

  std::string handlerName_ ZR_GUARDED_BY(lock_);
  bool joined_ ZR_GUARDED_BY(lock_) = false;  // to that task

  std::shared_ptr<ZrIoRegistration> registration_ ZR_GUARDED_BY(lock_);

  ZrSendQueue output_;
  ZrTurn turn_;
  ZrConnectionLimits limits_;
  ZrFlowNotices notices_;
  std::atomic<bool> expired_{false};
  std::atomic<bool> listed_{false};
};

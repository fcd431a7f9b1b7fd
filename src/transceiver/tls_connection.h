#pragma once
// A connection whose bytes go through TLS. Queues, events and time limits are those of the plain
// connection; only the way to the socket differs. What TLS has to send while it reads never makes
// it stop: the engine keeps what the socket refuses. So a read waits for input only; a write may
// wait for input, too, when the peer has begun a message of the TLS protocol and not finished it.

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "net/tls_engine.h"
#include "transceiver/connection.h"

/// Whom the client side of a connection expects, and when it gives up.
struct ZrTlsPeer {
  std::string name;                 ///< The host asked for; empty names none.
  std::function<bool()> cancelled;  ///< Asked now and then during the handshake; may be empty.
};

/// Threads: any, as for its base. The TLS state is used under the job's own lock.
class ZrTransceiverConnection_SSLAddon final : public ZrTransceiverConnection {
 public:
  /// How many records one pass reads at most, so that no connection holds an I/O job.
  static constexpr int kRounds = 100;

  /// The server side of a connection: returns at once, the handshake happens in the first reads and
  /// must be finished within kHeadTimeLimit. The context is only read here. Throws ZrException
  /// "Error getting SSL context" when there is none, so that nobody is served without TLS.
  ZrTransceiverConnection_SSLAddon(ssl_ctx_st* context, std::shared_ptr<ZrSocketIPvx> socket,
                                   ZrTransceiver& owner, std::string receiverName,
                                   std::string peerName, ZrServerCallback_t record,
                                   CloseCallback onClose);
  /// The client side: returns when the handshake is finished, throws ZrException when that fails or
  /// takes longer than ZrTlsEngine::kHandshakeLimit; see ZrTlsEngine::ConnectWithin().
  ZrTransceiverConnection_SSLAddon(ssl_ctx_st* context, const ZrTlsPeer& peer,
                                   std::shared_ptr<ZrSocketIPvx> socket, ZrTransceiver& owner,
                                   std::string receiverName, std::string peerName,
                                   ZrServerCallback_t record, CloseCallback onClose);
  ~ZrTransceiverConnection_SSLAddon() override;

  Output WriteToSocket(ZrSocketIPvx& socket) override ZR_REQUIRES(lock_);
  Output WriteThrough(ZrSocketIPvx& socket, ZrStringBuf& bytes) override ZR_REQUIRES(lock_);
  int ReadFromSocket(ZrSocketIPvx& socket) override;
  /// Sends TLS's end mark.
  bool FinishOutput(ZrSocketIPvx& socket) override ZR_REQUIRES(lock_);
  bool WantsOutput() const override ZR_REQUIRES(lock_);
  bool HasBufferedInput() const override { return bufferedInput_.load(std::memory_order_acquire); }
  bool IsOpening() const override { return !established_.load(std::memory_order_relaxed); }
  /// What was agreed on with the peer.
  ZrTlsEngine::Facts Agreed() ZR_EXCLUDES(lock_);
  bool ReadAffectsOutput() const override { return readAffectsOutput_; }

 private:
  // What a read step does after one record.
  enum class Next { kGoOn, kStop };

  Output WriteStep() ZR_REQUIRES(lock_);
  Output EndWriting(ZrTlsWriteStatus status, std::uint64_t sentBefore) ZR_REQUIRES(lock_);
  int ReadStep();
  Next ReadRecord(std::span<char> target, std::size_t& count, int& answer) ZR_EXCLUDES(lock_);

  const std::shared_ptr<ZrSocketIPvx> socket_;  // stays open as long as TLS writes through it
  std::optional<ZrTlsEngine> engine_ ZR_GUARDED_BY(lock_);
  std::atomic<bool> established_{false};              // changes under the lock
  bool writeWantsRead_ ZR_GUARDED_BY(lock_) = false;  // the last write waits for input
  std::atomic<bool> bufferedInput_{false};      // a read finds something without the socket's help
  std::atomic<bool> readAffectsOutput_{false};  // the last read wrote, or left bytes to be sent
};

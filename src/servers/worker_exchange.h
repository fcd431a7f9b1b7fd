#pragma once
// The request that a worker has out on its connection. Its end is found by whoever comes first: the
// queue task, by the answer or by the connection's end behind the last bytes, or the sender, when
// nothing could be sent. It ends once, and who ends it tells the pool: that it is answered, or not.

#include <memory>
#include <string>

#include "platform/sync.h"
#include "transceiver/connection.h"

/// `Asked` is what a server keeps of such a request; its member `connection` never changes. One
/// request is out at a time. Threads: any; the caller does not hold the connection's lock.
template <class Asked>
class ZrWorkerExchange {
 public:
  using Pointer = std::shared_ptr<Asked>;

  /// Before the request is sent. No: its connection has gone, or is about to go, and nobody else
  /// tells the pool.
  [[nodiscard]] bool Begin(const Pointer& asked) ZR_EXCLUDES(lock_) {
    {
      ZrLock hold(lock_);
      asked_ = asked;
    }
    asked->connection->ExpectAnswers();
    // From here on the end of the connection finds the request. One that came before did not; and
    // what is sent while it closes would reach a peer whose answer is dropped.
    return (asked->connection->IsListed() && !asked->connection->IsClosing()) || !End(asked);
  }

  /// The request that is out on the connection of that name, if one is.
  Pointer On(const std::string& connectionName) const ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    return asked_ && asked_->connection->JobName() == connectionName ? asked_ : nullptr;
  }

  /// Yes: it was out, and the caller tells the pool.
  [[nodiscard]] bool End(const Pointer& asked) ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    if (!asked || asked_ != asked) return false;
    asked_ = nullptr;
    return true;
  }

 private:
  mutable ZrMutex lock_;  // never held while calling out
  Pointer asked_ ZR_GUARDED_BY(lock_);
};

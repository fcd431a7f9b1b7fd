#pragma once
// The pools of outgoing requests: one for each handler, target and way of connecting to it. A pool
// is made with the first request for it and goes when it holds nothing.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/server_callback.h"
#include "platform/sync.h"
#include "transceiver/fwd.h"
#include "transceiver/server_factories.h"

class ZrRinvalScheduler2;

/// Owned by the transceiver. Threads: any; the caller holds no lock.
class ZrOutgoingPools {
 public:
  /// All outlive the pools.
  ZrOutgoingPools(ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver,
                  const ZrServerFactories& factories);
  ZrOutgoingPools(const ZrOutgoingPools&) = delete;
  ZrOutgoingPools& operator=(const ZrOutgoingPools&) = delete;

  /// Requests of that handler are taken from now on.
  void Admit(const std::string& clientName) ZR_EXCLUDES(lock_);
  /// No more of them; ends the handler's pools and waits for answers that it is handling.
  void Dismiss(const std::string& clientName) ZR_EXCLUDES(lock_);
  /// Sends a request of that handler through the pool for its target. Returns the message's name,
  /// or ZrJob::CommonErrorName() when there is no way to the target.
  std::string Submit(const std::string& clientName, std::shared_ptr<ZrXHeader> message,
                     const ZrServerCallback& callback) ZR_EXCLUDES(lock_);
  /// Nobody waits for the answer to that request of the handler any more; see
  /// ZrOutgoingLink::Withdraw().
  void Withdraw(const std::string& clientName, const std::shared_ptr<ZrXHeader>& message)
      ZR_EXCLUDES(lock_);
  /// Ends all pools' tasks and waits for them.
  void EndTasks() ZR_EXCLUDES(lock_);
  /// Lets go of all pools.
  void Clear() ZR_EXCLUDES(lock_);

 private:
  using Pool = std::shared_ptr<ZrOutgoingLink>;
  using Pools = std::map<std::string, Pool>;  // by target

  static void End(const std::vector<Pool>& pools);
  Pool Find(const std::string& clientName, const std::string& key) ZR_EXCLUDES(lock_);
  Pool FindOrMake(const std::string& clientName, const std::string& key, std::uint32_t kind,
                  const ZrServerCallback& callback) ZR_EXCLUDES(lock_);

  ZrRinvalScheduler2& scheduler_;
  ZrTransceiver& transceiver_;
  const ZrServerFactories& factories_;

  ZrMutex lock_;  // held for look-ups and changes of the table only
  std::map<std::string, Pools> hookServices_ ZR_GUARDED_BY(lock_);  // by handler name
};

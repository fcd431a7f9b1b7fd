#include "transceiver/outgoing_pools.h"

#include <memory>
#include <utility>

#include "http/message_head.h"
#include "transceiver/server_link.h"
#include "transceiver/transceiver.h"

namespace {

// Requests share connections when they agree on the target and on how it is connected to: what was
// to be verified never goes over a line that was not. How long connecting may take is no
// difference.
std::string PoolKey(const ZrXHeader& request) {
  std::string key = request.TargetUrl();
  for (const auto& [name, value] : request.connectOptions.entries())
    if (name != "timeout") key.append("\n").append(name).append("=").append(value);
  return key;
}

/// Who was counted as a pool's sender until it goes.
struct Leave {
  void operator()(ZrOutgoingLink* left) const { --left->senders; }
};
using Sender = std::unique_ptr<ZrOutgoingLink, Leave>;

}  // namespace

ZrOutgoingPools::ZrOutgoingPools(ZrRinvalScheduler2& scheduler, ZrTransceiver& transceiver,
                                 const ZrServerFactories& factories)
    : scheduler_(scheduler), transceiver_(transceiver), factories_(factories) {}

void ZrOutgoingPools::Admit(const std::string& clientName) {
  ZrLock hold(lock_);
  hookServices_.try_emplace(clientName);
}

void ZrOutgoingPools::Dismiss(const std::string& clientName) {
  std::vector<Pool> pools;
  {
    ZrLock hold(lock_);
    const auto found = hookServices_.find(clientName);
    if (found == hookServices_.end()) return;
    for (auto& [key, pool] : found->second) pools.push_back(std::move(pool));
    hookServices_.erase(found);
  }
  End(pools);
}

// All of them first: the end of one waits for handlers that may be opening connections of another.
void ZrOutgoingPools::End(const std::vector<Pool>& pools) {
  for (const Pool& pool : pools) pool->EndStarts();
  for (const Pool& pool : pools) pool->EndTasks();
}

void ZrOutgoingPools::EndTasks() {
  std::vector<Pool> pools;
  {
    ZrLock hold(lock_);
    for (const auto& [clientName, ofClient] : hookServices_)
      for (const auto& [key, pool] : ofClient) pools.push_back(pool);
  }
  End(pools);
}

void ZrOutgoingPools::Clear() {
  decltype(hookServices_) pools;  // released without the lock
  ZrLock hold(lock_);
  pools.swap(hookServices_);
}

std::string ZrOutgoingPools::Submit(const std::string& clientName,
                                    std::shared_ptr<ZrXHeader> message,
                                    const ZrServerCallback& callback) {
  const Pool pool = FindOrMake(clientName, PoolKey(*message), message->ProtocolKind(), callback);
  if (!pool) return ZrJob::CommonErrorName();
  const Sender counted(pool.get());
  pool->OutgoingJob().Attach(message->target);
  const std::string name = message->JobName();
  bool startFailed = false;
  pool->submit(std::move(message), startFailed, false);
  return startFailed ? ZrJob::CommonErrorName() : name;
}

void ZrOutgoingPools::Withdraw(const std::string& clientName,
                               const std::shared_ptr<ZrXHeader>& message) {
  const Pool pool = Find(clientName, PoolKey(*message));
  const Sender counted(pool.get());
  if (pool) pool->Withdraw(message);
}

ZrOutgoingPools::Pool ZrOutgoingPools::Find(const std::string& clientName, const std::string& key) {
  ZrLock hold(lock_);
  const auto ofClient = hookServices_.find(clientName);
  if (ofClient == hookServices_.end()) return nullptr;
  const auto found = ofClient->second.find(key);
  if (found == ofClient->second.end()) return nullptr;
  ++found->second->senders;
  return found->second;
}

// The caller is counted as the pool's sender. It is made outside the lock; of two made at once the
// first one entered stays. Those that hold nothing and that nobody is about to use go here: a
// handler that asks ever new targets keeps those in use only.
ZrOutgoingPools::Pool ZrOutgoingPools::FindOrMake(const std::string& clientName,
                                                  const std::string& key, std::uint32_t kind,
                                                  const ZrServerCallback& callback) {
  if (Pool pool = Find(clientName, key)) return pool;
  const auto workers = factories_.connecting.find(kind);
  if (!factories_.outgoing || workers == factories_.connecting.end()) return nullptr;
  const Pool made = factories_.outgoing({.scheduler = scheduler_,
                                         .transceiver = transceiver_,
                                         .clientName = clientName,
                                         .ownerName = transceiver_.JobName(),
                                         .callback = callback},
                                        workers->second);
  std::vector<Pool> unused;  // released without the lock
  ZrLock hold(lock_);
  const auto ofClient = hookServices_.find(clientName);
  if (ofClient == hookServices_.end()) return nullptr;  // dismissed meanwhile, with its pools
  std::erase_if(ofClient->second, [&unused](auto& entry) {
    if (entry.second->senders > 0 || !entry.second->IsUnused()) return false;
    unused.push_back(std::move(entry.second));
    return true;
  });
  const auto [place, added] = ofClient->second.try_emplace(key, made);
  ++place->second->senders;
  return place->second;
}

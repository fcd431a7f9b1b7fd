// Handlers, servers and messages of the transceiver. Connections and their bytes are in
// transceiver_io.cpp, time limits in transceiver_housekeeping.cpp.

#include "transceiver/transceiver.h"

#include <utility>

#include "http/message_head.h"
#include "http/server_head.h"
#include "jobs/job_registry.h"
#include "jobs/scheduler.h"
#include "platform/output.h"
#include "transceiver/connection.h"
#include "transceiver/message_handler.h"
#include "transceiver/server_link.h"

namespace {

// The protocols that messages are sent with.
bool CarriesMessages(std::uint32_t protocolKind) {
  return protocolKind == zr::kProtocolHttp || protocolKind == zr::kProtocolHttps ||
         protocolKind == zr::kProtocolQuarn || protocolKind == zr::kProtocolSocket;
}

// Requests share connections when they agree on the target and on how it is connected to: what was
// to be verified never goes over a line that was not.
std::string PoolKey(const ZrXHeader& request) {
  std::string key = request.TargetUrl();
  for (const auto& [name, value] : request.connectOptions.entries()) {
    key.append("\n").append(name).append("=").append(value);
  }
  return key;
}

}  // namespace

ZrTransceiver::ZrTransceiver(ZrRinvalScheduler2& scheduler, ZrServerFactories factories,
                             const ZrClock& clock)
    : scheduler_(scheduler),
      factories_(std::move(factories)),
      clock_(clock),
      housekeepingTask_(CreateJoinedTask("housekeeping")) {
  housekeeper_ = ZrThread::Start("zr_housekeeper", [this] { HousekeepingLoop(); });
}

// Everything that runs ends before anything goes: servers first, as their tasks use connections.
ZrTransceiver::~ZrTransceiver() {
  Retire();
  StopServers();
  EndHousekeeping();
  StopIO();
  EndIO();
  decltype(servers_) servers;
  decltype(connections_) connections;
  decltype(clients_) clients;
  decltype(hookServices_) hookServices;
  decltype(hookServicesByName_) hookServicesByName;
  {
    ZrLock hold(clientLock_);
    servers.swap(servers_);
    connections.swap(connections_);
    clients.swap(clients_);
    hookServices.swap(hookServices_);
    hookServicesByName.swap(hookServicesByName_);
  }
  hookServices.clear();
  hookServicesByName.clear();
  servers.clear();
  for (auto& [name, connection] : connections) Unbind(*connection);
  connections.clear();
  for (auto& [name, record] : clients) record.client->DetachTransceiver(*this);
}

bool ZrTransceiver::PostEvent(std::string_view target, ZrJobEvent event) {
  return ZrJobRegistry::Instance().Post(target, std::move(event));
}

// ---- Handlers ----------------------------------------------------------------------------------

std::shared_ptr<ZrMessageHandler> ZrTransceiver::AddClient(
    std::shared_ptr<ZrMessageHandler> client) {
  if (!client) return nullptr;
  {
    ZrLock hold(clientLock_);
    const auto [place, added] =
        clients_.try_emplace(client->HandlerJob().JobName(), ClientRecord{client, {}});
    if (!added) return nullptr;
  }
  client->AttachTransceiver(*this);
  return client;
}

void ZrTransceiver::RemoveClient(const std::shared_ptr<ZrMessageHandler>& client) {
  if (!client) return;
  decltype(clients_)::node_type removed;
  decltype(hookServices_)::node_type pools;
  {
    ZrLock hold(clientLock_);
    removed = clients_.extract(client->HandlerJob().JobName());
    if (removed) pools = hookServices_.extract(client->HandlerJob().JobName());
    if (pools) {
      for (const auto& [key, pool] : pools.mapped()) {
        hookServicesByName_.erase(pool->OutgoingJob().JobName());
      }
    }
  }
  if (pools) {
    for (const auto& [key, pool] : pools.mapped()) pool->EndStarts();
    for (const auto& [key, pool] : pools.mapped()) pool->EndTasks();
  }
  if (removed) client->DetachTransceiver(*this);
}

std::shared_ptr<ZrMessageHandler> ZrTransceiver::FindClient(const std::string& name) {
  ZrLock hold(clientLock_);
  const auto found = clients_.find(name);
  return found == clients_.end() ? nullptr : found->second.client;
}

ZrTransceiver::Ends ZrTransceiver::FindEnds(const std::string& connectionName,
                                            const std::string& clientName) {
  ZrLock hold(clientLock_);
  const auto connection = connections_.find(connectionName);
  const auto client = clients_.find(clientName);
  return {connection == connections_.end() ? nullptr : connection->second,
          client == clients_.end() ? nullptr : client->second.client};
}

// ---- Servers -----------------------------------------------------------------------------------

std::string ZrTransceiver::OpenServer(ZrMessageHandler& client,
                                      std::shared_ptr<ZrXServerHeader> configuration,
                                      const ZrServerCallback& callback) {
  if (!configuration) return CommonErrorName();
  const std::string clientName = client.HandlerJob().JobName();
  const std::string headName = configuration->JobName();
  const auto entry = factories_.listening.find(configuration->ProtocolKind());
  {
    // The head is entered before its server is made, so that two callers cannot both make one.
    ZrLock hold(clientLock_);
    const auto record = clients_.find(clientName);
    if (record == clients_.end()) return CommonErrorName();
    if (entry != factories_.listening.end() && !record->second.servers.insert(headName).second) {
      return headName;
    }
  }
  if (entry == factories_.listening.end()) {
    zr::WriteOutputLine("unknown protocol!! (3)");
    return CommonErrorName();
  }
  std::shared_ptr<ZrServerLink> server;
  try {
    server = entry->second.make(scheduler_, std::move(configuration), *this, clientName, headName,
                                JobName(), callback, entry->second.label);
    AddServer(server);
    server->start();
  } catch (...) {
    if (server) RemoveServer(server->ServerJob().JobName());
    ZrLock hold(clientLock_);
    const auto record = clients_.find(clientName);
    if (record != clients_.end()) record->second.servers.erase(headName);
    throw;
  }
  ZrServerCallback_t record;
  record.kind = ZrServerCallback_t::kServerCreated;
  record.info.Set("protocol", entry->second.protocol);
  record.info.Set("ID", server->ServerJob().JobName());
  record.info.Set("roll", "server");
  if (callback) callback(record);
  return headName;
}

void ZrTransceiver::AddServer(std::shared_ptr<ZrServerLink> server) {
  ZrJobWithTimeout& job = server->ServerJob();
  job.Attach(housekeepingTask_);
  const std::int64_t due = job.ExpiryNs();
  {
    ZrLock hold(clientLock_);
    servers_.insert_or_assign(job.JobName(), std::move(server));
  }
  WatchServers(due);
}

void ZrTransceiver::RemoveServer(const std::string& name) {
  decltype(servers_)::node_type removed;  // released without the lock
  ZrLock hold(clientLock_);
  removed = servers_.extract(name);
}

std::shared_ptr<ZrServerLink> ZrTransceiver::FindServer(const std::string& name) {
  ZrLock hold(clientLock_);
  const auto found = servers_.find(name);
  return found == servers_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<ZrServerLink>> ZrTransceiver::Servers() {
  std::vector<std::shared_ptr<ZrServerLink>> servers;
  ZrLock hold(clientLock_);
  for (const auto& [name, server] : servers_) servers.push_back(server);
  return servers;
}

void ZrTransceiver::ReleaseServerTask(const std::string& serverName) {
  const std::shared_ptr<ZrServerLink> server = FindServer(serverName);
  if (!server) return;
  ZrJobEvent event;
  event.code = kZrEventWorkerDone;
  event.jobName = serverName;
  event.fields["ctask"] = server->ServerJob().AttachedTask();
  server->ServerJob().Detach({});
  PostEvent(server->PeerName(), std::move(event));
}

void ZrTransceiver::StopAccepting() {
  for (const auto& server : Servers()) server->stop();
}

void ZrTransceiver::StopServers() {
  StopAccepting();
  std::vector<std::shared_ptr<ZrOutgoingLink>> pools;
  {
    ZrLock hold(clientLock_);
    for (const auto& [name, pool] : hookServicesByName_) pools.push_back(pool);
  }
  // All of them first: the end of one waits for handlers that may be opening connections of
  // another.
  for (const auto& pool : pools) pool->EndStarts();
  for (const auto& pool : pools) pool->EndTasks();
  for (const auto& server : Servers()) server->EndTasks();
}

// ---- Messages ----------------------------------------------------------------------------------

std::string ZrTransceiver::Send(ZrMessageHandler& client, std::shared_ptr<ZrXHeader> message,
                                const ZrServerCallback& callback, const std::string& target, int) {
  if (!message) return CommonErrorName();
  const std::string& clientName = client.HandlerJob().JobName();
  const bool known = CarriesMessages(message->ProtocolKind());
  const ZrMessageKind kind = message->kind;
  if (known && kind == ZrMessageKind::kResponse) return SendAnswer(clientName, message, target);
  if (!FindClient(clientName)) return CommonErrorName();
  message->target = target;
  switch (kind) {
    case ZrMessageKind::kResponse:
      zr::WriteOutputLine("unknown protocol!! (1)");
      break;
    case ZrMessageKind::kRequest:
      if (known) return SendRequest(clientName, std::move(message), callback);
      zr::WriteOutputLine("unknown protocol!! (2)");
      break;
    case ZrMessageKind::kUnrecognised:
      break;
  }
  return CommonErrorName();
}

std::string ZrTransceiver::SendAnswer(const std::string& clientName,
                                      const std::shared_ptr<ZrXHeader>& message,
                                      const std::string& target) {
  if (message->route.size() < 2) return CommonErrorName();
  std::shared_ptr<ZrServerLink> server;
  {
    ZrLock hold(clientLock_);
    const auto found = servers_.find(message->route[0]);
    if (!clients_.contains(clientName) || found == servers_.end() ||
        !connections_.contains(message->route[1])) {
      return CommonErrorName();
    }
    server = found->second;
  }
  message->target = target;
  server->ServerJob().Attach(message->target);
  server->SendHead(message->route[1], message);
  return message->JobName();
}

std::string ZrTransceiver::SendRequest(const std::string& clientName,
                                       std::shared_ptr<ZrXHeader> message,
                                       const ZrServerCallback& callback) {
  const std::shared_ptr<ZrOutgoingLink> pool =
      OutgoingFor(clientName, PoolKey(*message), message->ProtocolKind(), callback);
  if (!pool) return CommonErrorName();
  const auto leave = [](ZrOutgoingLink* left) { --left->senders; };
  const std::unique_ptr<ZrOutgoingLink, decltype(leave)> counted(pool.get(), leave);
  pool->OutgoingJob().Attach(message->target);
  const std::string name = message->JobName();
  bool startFailed = false;
  pool->submit(std::move(message), startFailed, false);
  return startFailed ? CommonErrorName() : name;
}

// Takes out the pools that hold nothing and that nobody is about to use: a handler that asks ever
// new targets keeps those in use only.
void ZrTransceiver::TakeUnused(Pools& pools, std::vector<std::shared_ptr<ZrOutgoingLink>>& unused) {
  for (auto pool = pools.begin(); pool != pools.end();) {
    if (pool->second->senders > 0 || !pool->second->IsUnused()) {
      ++pool;
      continue;
    }
    hookServicesByName_.erase(pool->second->OutgoingJob().JobName());
    unused.push_back(std::move(pool->second));
    pool = pools.erase(pool);
  }
}

// The pool of one handler for one target, with the caller counted as its sender. It is made outside
// the lock; of two made at once the first one entered stays.
std::shared_ptr<ZrOutgoingLink> ZrTransceiver::OutgoingFor(const std::string& clientName,
                                                           const std::string& poolKey,
                                                           std::uint32_t kind,
                                                           const ZrServerCallback& callback) {
  {
    ZrLock hold(clientLock_);
    const auto ofClient = hookServices_.find(clientName);
    if (ofClient != hookServices_.end()) {
      const auto found = ofClient->second.find(poolKey);
      if (found != ofClient->second.end()) {
        ++found->second->senders;
        return found->second;
      }
    }
  }
  const auto workers = factories_.connecting.find(kind);
  if (!factories_.outgoing || workers == factories_.connecting.end()) return nullptr;
  std::shared_ptr<ZrOutgoingLink> pool =
      factories_.outgoing(scheduler_, *this, clientName, callback, workers->second, JobName());
  std::vector<std::shared_ptr<ZrOutgoingLink>> unused;  // released without the lock, like the pool
  ZrLock hold(clientLock_);
  if (!clients_.contains(clientName)) return nullptr;  // taken out meanwhile, with its pools
  Pools& pools = hookServices_[clientName];
  TakeUnused(pools, unused);
  const auto [place, added] = pools.try_emplace(poolKey, pool);
  if (added) hookServicesByName_.emplace(pool->OutgoingJob().JobName(), pool);
  ++place->second->senders;
  return place->second;
}

void ZrTransceiver::PrintLogRecord(const ZrServerCallback_t& record) {
  if (record.kind != ZrServerCallback_t::kMessageLogged) return;
  const auto line = record.info.entries().find("logging");
  if (line != record.info.entries().end()) zr::WriteOutputLine(line->second);
}

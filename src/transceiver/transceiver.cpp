#include "transceiver/transceiver.h"

#include <algorithm>
#include <utility>

#include "base/exception.h"
#include "base/line_writer.h"
#include "http/message_head.h"
#include "http/server_head.h"
#include "jobs/job_registry.h"
#include "jobs/scheduler.h"
#include "net/tcp_socket.h"
#include "platform/socket.h"
#include "transceiver/connection.h"
#include "transceiver/io_registration.h"
#include "transceiver/message_ends.h"
#include "transceiver/message_handler.h"
#include "transceiver/server_link.h"

namespace {

// The protocols that messages are sent with.
bool CarriesMessages(std::uint32_t protocolKind) {
  return protocolKind == zr::kProtocolHttp || protocolKind == zr::kProtocolHttps ||
         protocolKind == zr::kProtocolQuarn || protocolKind == zr::kProtocolSocket;
}

}  // namespace

ZrTransceiver::ZrTransceiver(ZrRinvalScheduler2& scheduler, ZrServerFactories factories,
                             const ZrClock& clock, std::uint64_t memoryLimit, ZrIoTeamSize team)
    : scheduler_(scheduler),
      factories_(std::move(factories)),
      clock_(clock),
      housekeepingTask_(CreateJoinedTask("housekeeping")),
      housekeeper_(clock),
      loops_(scheduler, housekeeper_, progress_, clock, JobName(), memoryLimit, team,
             [this](ZrTransceiverConnection& connection) { RemoveConnection(connection); }),
      pools_(scheduler, *this, factories_) {
  housekeeper_.Start(
      {.checkConnection = [this](const ConnectionPointer& due) { CheckConnection(due); },
       .checkServers = [this] { return CheckServers(); },
       .checkMemory = [this] { return CheckMemory(); }});
}

// Everything that runs ends before anything goes: servers first, as their tasks use connections.
ZrTransceiver::~ZrTransceiver() {
  Retire();
  StopServers();
  housekeeper_.End();
  StopIO();
  loops_.WaitForEnd();
  decltype(servers_) servers;
  decltype(connections_) connections;
  decltype(clients_) clients;
  {
    ZrLock hold(clientLock_);
    servers.swap(servers_);
    connections.swap(connections_);
    clients.swap(clients_);
  }
  pools_.Clear();
  servers.clear();
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
  pools_.Admit(client->HandlerJob().JobName());
  client->AttachTransceiver(*this);
  return client;
}

void ZrTransceiver::RemoveClient(const std::shared_ptr<ZrMessageHandler>& client) {
  if (!client) return;
  const std::string& name = client->HandlerJob().JobName();
  decltype(clients_)::node_type removed;
  {
    ZrLock hold(clientLock_);
    removed = clients_.extract(name);
  }
  pools_.Dismiss(name);
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
                                      std::shared_ptr<ZrXServerHeader> head,
                                      const ZrServerCallback& callback) {
  if (!head) return CommonErrorName();
  const std::string clientName = client.HandlerJob().JobName();
  const std::string headName = head->JobName();
  const auto entry = factories_.listening.find(head->ProtocolKind());
  {
    // The head is entered before its server is made, so that two callers cannot both make one.
    ZrLock hold(clientLock_);
    const auto record = clients_.find(clientName);
    if (record == clients_.end()) return CommonErrorName();
    if (entry != factories_.listening.end() && !record->second.servers.insert(headName).second)
      return headName;
  }
  if (entry == factories_.listening.end()) {
    zr::WriteOutputNotice("unknown protocol!! (3)");
    return CommonErrorName();
  }
  std::shared_ptr<ZrServerLink> server;
  try {
    server = entry->second.make({.scheduler = scheduler_,
                                 .transceiver = *this,
                                 .clientName = clientName,
                                 .headName = headName,
                                 .ownerName = JobName(),
                                 .callback = callback,
                                 .type = entry->second.label},
                                std::move(head));
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
  try {
    if (callback) callback(record);
  } catch (...) {
    // The owner's own failure; the server runs all the same.
  }
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
  housekeeper_.WatchServers(due);
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
  PostEvent(server->OwnerName(), std::move(event));
}

void ZrTransceiver::StopAccepting() {
  for (const auto& server : Servers()) server->stop();
}

void ZrTransceiver::StopServers() {
  StopAccepting();
  pools_.EndTasks();
  for (const auto& server : Servers()) server->EndTasks();
}

// ---- Messages ----------------------------------------------------------------------------------

std::string ZrTransceiver::Send(ZrMessageHandler& client, std::shared_ptr<ZrXHeader> message,
                                const ZrServerCallback& callback, const std::string& target, int) {
  if (!message) return CommonErrorName();
  const bool known = CarriesMessages(message->ProtocolKind());
  const ZrMessageKind kind = message->kind;
  if (known && kind == ZrMessageKind::kResponse)
    return SendAnswer(client, message, target) ? message->JobName() : CommonErrorName();
  const std::string& clientName = client.HandlerJob().JobName();
  if (!FindClient(clientName)) return CommonErrorName();
  message->target = target;
  switch (kind) {
    case ZrMessageKind::kResponse:
      zr::WriteOutputNotice("unknown protocol!! (1)");
      break;
    case ZrMessageKind::kRequest:
      if (known) return pools_.Submit(clientName, std::move(message), callback);
      zr::WriteOutputNotice("unknown protocol!! (2)");
      break;
    case ZrMessageKind::kUnrecognised:
      break;
  }
  return CommonErrorName();
}

// To the ends that the request came from; by the names of its route when it carries none.
bool ZrTransceiver::SendAnswer(ZrMessageHandler& client, const std::shared_ptr<ZrXHeader>& message,
                               const std::string& target) {
  ConnectionPointer connection;
  std::shared_ptr<ZrServerLink> server;
  if (message->ends && message->ends->handler == &client) {
    connection = message->ends->connection.lock();
    server = message->ends->server.lock();
    if (connection && !connection->IsListed()) connection = nullptr;
  } else if (message->route.size() >= 2 && FindClient(client.HandlerJob().JobName())) {
    server = FindServer(message->route[0]);
    connection = FindConnection(message->route[1]);
  }
  if (!server || !connection) return false;
  zr::JoinTask(server->ServerJob(), *message, target);
  server->SendHead(connection, message);
  return true;
}

void ZrTransceiver::PrintLogRecord(const ZrServerCallback_t& record) {
  if (record.kind != ZrServerCallback_t::kMessageLogged) return;
  const auto line = record.info.entries().find("logging");
  if (line != record.info.entries().end()) zr::WriteOutputLine(line->second);
}

// ---- Connections -------------------------------------------------------------------------------

std::string ZrTransceiver::AddConnection(std::shared_ptr<ZrSocketIPvx> socket,
                                         ConnectionPointer connection) {
  if (!socket || !connection)
    throw ZrException("socket and connection must be defined", 1906, "src");
  // A copy, made before anything else: what fails behind the registration would leave a connection
  // that nobody knows.
  std::string name = connection->JobName();
  {
    ZrLock hold(clientLock_);
    if (!connections_.emplace(name, connection).second) return name;
    connection->SetListed(true);
  }
  try {
    housekeeper_.Watch(connection);
    if (loops_.Register(std::move(socket), connection)) return name;
  } catch (...) {
    Drop(*connection);
    throw;
  }
  Drop(*connection);
  return name;
}

void ZrTransceiver::RemoveConnection(const std::string& name, bool) {
  if (const ConnectionPointer connection = FindConnection(name)) RemoveConnection(*connection);
}

void ZrTransceiver::RemoveConnection(ZrTransceiverConnection& connection) {
  // Kept to the end: the tables may hold the connection's last reference.
  const std::shared_ptr<ZrIoRegistration> registration = loops_.Unregister(connection);
  if (registration) Drop(connection);
}

void ZrTransceiver::ResetConnection(ZrTransceiverConnection& connection) {
  {
    ZrLock hold(connection.Lock());
    if (ZrIoRegistration* const registration = connection.Registration())
      zr::ResetConnection(registration->socket->primaryDescriptor());
  }
  RemoveConnection(connection);
}

// Off the tables first: who looks for it after the event finds nothing.
void ZrTransceiver::Drop(ZrTransceiverConnection& connection) {
  const std::string& name = connection.JobName();
  decltype(connections_)::node_type removed;  // released without the lock, like the server
  decltype(servers_)::node_type server;
  {
    ZrLock hold(clientLock_);
    connection.SetListed(false);
    removed = connections_.extract(name);
    server = servers_.extract(name);
  }
  ZrJobEvent event;
  event.code = kZrEventClosed;
  event.jobName = name;
  PostEvent(connection.ServerOwnerName(), event);
  PostEvent(connection.ReceiverName(), event);
  PostEvent(name, std::move(event));
  housekeeper_.Forget(connection);
  connection.BeginClosing();
  NoteProgress();
}

void ZrTransceiver::FinishConnection(ZrTransceiverConnection& connection) {
  connection.BeginClosing();
  if (connection.IsExpired()) return RemoveConnection(connection);
  ResumeReading(connection);
  FlushConnection(connection);
}

ZrTransceiver::ConnectionPointer ZrTransceiver::FindConnection(const std::string& name) {
  ZrLock hold(clientLock_);
  const auto found = connections_.find(name);
  return found == connections_.end() ? nullptr : found->second;
}

std::size_t ZrTransceiver::ConnectionCount() {
  ZrLock hold(clientLock_);
  return connections_.size();
}

std::vector<ZrTransceiver::ConnectionPointer> ZrTransceiver::Connections() {
  std::vector<ConnectionPointer> connections;
  ZrLock hold(clientLock_);
  connections.reserve(connections_.size());
  for (const auto& [name, connection] : connections_) connections.push_back(connection);
  return connections;
}

bool ZrTransceiver::IsBusy() {
  const std::vector<ConnectionPointer> connections = Connections();
  return std::any_of(connections.begin(), connections.end(), [](const auto& connection) {
    return connection->IsBusy() || connection->SendPending();
  });
}

bool ZrTransceiver::WaitForAnswers(std::chrono::nanoseconds limit) {
  return progress_.WaitUntilIdle(
      limit, [this] { return IsBusy(); });
}

// ---- Time limits -------------------------------------------------------------------------------

std::int64_t ZrTransceiver::CheckServers() {
  std::int64_t next = ZrHousekeeper::kNever;
  for (const auto& server : Servers()) {
    ZrJobWithTimeout& job = server->ServerJob();
    if (!job.HasExpired()) {
      if (server->CanExpire()) next = std::min(next, job.ExpiryNs());
      continue;
    }
    ZrJobEvent event;
    event.code = kZrEventTimeLimit;
    event.jobName = job.JobName();
    PostEvent(server->OwnerName(), event);
    event.code = kZrEventEndServer;
    PostEvent(job.JobName(), event);
    RemoveServer(job.JobName());
  }
  // One that is past its time and not taken as expired says so at the next look.
  return std::max(next, clock_.MonotonicNs() + ZrHousekeeper::kGrain);
}

void ZrTransceiver::CheckConnection(const ConnectionPointer& connection) {
  if (!connection->HasExpired()) return housekeeper_.Watch(connection);
  if (connection->IsClosing()) return RemoveConnection(*connection);
  if (connection->TellLate()) return housekeeper_.Watch(connection);
  ZrJobEvent event;
  event.code = kZrEventTimeLimit;
  event.jobName = connection->JobName();
  PostEvent(connection->ReceiverName(), std::move(event));
  {
    ZrLock hold(clientLock_);
    connection->SetListed(false);
    connections_.erase(connection->JobName());
  }
  connection->MarkExpired();
  try {
    connection->Close();
  } catch (...) {
    // Its owner gave it a callback that cannot close it: it goes all the same.
    RemoveConnection(*connection);
  }
}

// While memory is short, what holds some and has stood still for long makes room: the newest goes,
// and when that was not enough, the next one a moment later.
std::int64_t ZrTransceiver::CheckMemory() {
  if (!Memory()->Exceeded()) return ZrHousekeeper::kNever;
  const std::int64_t now = clock_.MonotonicNs();
  std::int64_t next = now + ZrIoLoops::kStandstill;
  ConnectionPointer newest;
  std::uint64_t newestToken = 0;
  for (const ConnectionPointer& connection : Connections()) {
    const std::uint64_t held = std::max(connection->HeldInput(), connection->HeldOutput());
    const auto since = connection->SilentSinceNs();
    if (held <= ZrIoLoops::kFairShare || !since) continue;
    next = std::min(next, *since + ZrIoLoops::kStandstill);
    if (now - *since < ZrIoLoops::kStandstill) continue;
    ZrLock hold(connection->Lock());
    const ZrIoRegistration* const registration = connection->Registration();
    if (registration == nullptr || registration->token < newestToken) continue;
    newest = connection;
    newestToken = registration->token;
  }
  if (newest) RemoveConnection(*newest);
  return std::max(next, now + ZrHousekeeper::kGrain);
}

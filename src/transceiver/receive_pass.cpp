#include "transceiver/receive_pass.h"

#include <algorithm>
#include <span>
#include <utility>

#include "jobs/job_registry.h"
#include "transceiver/connection.h"
#include "transceiver/server_link.h"

namespace {

[[gnu::tls_model("initial-exec")]] thread_local ZrReceivePass* current = nullptr;

// Servers come and go: what is kept for more of them than this is dropped.
constexpr std::size_t kKeptServers = 16;

}  // namespace

ZrReceivePass::ZrReceivePass(ZrMutex& telling) noexcept : telling_(telling) { current = this; }

ZrReceivePass::~ZrReceivePass() { current = nullptr; }

ZrReceivePass* ZrReceivePass::Current() noexcept { return current; }

ZrReceivePass::News& ZrReceivePass::NewsFor(const std::string& receiver) {
  const auto known = std::find_if(news_.begin(), news_.end(), [&receiver](const News& news) {
    return news.receiver == receiver;
  });
  if (known != news_.end()) return *known;
  news_.emplace_back().receiver = receiver;
  return news_.back();
}

bool ZrReceivePass::Announce(ZrTransceiverConnection& connection) {
  if (!reading_ || current_.get() != &connection) return false;
  News& news = NewsFor(connection.ReceiverName());
  if (news.count == news.events.size()) news.events.emplace_back();
  ZrJobEvent& event = news.events[news.count];
  event.jobName = connection.JobName();
  event.code = kZrEventDataArrived;
  news.connections.push_back(current_);
  ++news.count;
  return true;
}

// The events of a batch are delivered in their order: the connection is the next one.
ZrReceivePass::ConnectionPointer ZrReceivePass::Awaited(const std::string& connectionName) {
  if (told_ == nullptr) return current_;
  if (next_ < told_->count && told_->events[next_].jobName == connectionName)
    return told_->connections[next_++];
  return nullptr;
}

bool ZrReceivePass::Defer(const ServerPointer& server, const std::string& connectionName) {
  if (!server || reading_ || round_ >= kRounds) return false;
  const ConnectionPointer connection = Awaited(connectionName);
  if (!connection || connection->JobName() != connectionName) return false;
  auto known = std::find_if(arrivals_.begin(), arrivals_.end(), [&server](const Arrivals& one) {
    return one.server == server || !one.server;
  });
  if (known == arrivals_.end()) known = arrivals_.insert(known, Arrivals());
  known->connections.push_back(connection);
  known->server = server;
  return true;
}

void ZrReceivePass::Tell(News& news, const std::function<void(ZrTransceiverConnection&)>& giveUp) {
  told_ = &news;
  next_ = 0;
  try {
    const ZrLock turn(telling_);
    ZrJobRegistry::Instance().Deliver(news.receiver, std::span(news.events).first(news.count));
  } catch (...) {
    // Out of memory: nobody would ever come for these bytes.
    for (const ConnectionPointer& connection : news.connections) giveUp(*connection);
  }
  told_ = nullptr;
  news.count = 0;
  news.connections.clear();
}

void ZrReceivePass::HandOut(const std::function<void(ZrTransceiverConnection&)>& giveUp) {
  const bool idle = !std::exchange(reading_, false);
  round_ = 0;
  for (News& news : news_)
    if (news.count > 0) Tell(news, giveUp);
  while (!arrivals_.empty() && arrivals_.front().server) {
    ++round_;
    handled_.swap(arrivals_);
    for (Arrivals& one : handled_) {
      try {
        if (one.server) one.server->HandleArrived(*this, one.connections);
      } catch (...) {
        // Out of memory, in effect: who has been handled already loses nothing by it but the
        // connection.
        for (const ConnectionPointer& connection : one.connections) giveUp(*connection);
      }
      one.connections.clear();
      one.server = nullptr;
    }
  }
  current_ = nullptr;
  if (news_.size() > kKeptServers) news_.clear();
  if (arrivals_.size() > kKeptServers) arrivals_.clear();
  batch_.Forget();
  if (idle) batch_.Rest();
}

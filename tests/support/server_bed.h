#pragma once
// A transceiver with real servers on port 0 and a handler whose answers the test decides.

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "http/response_head.h"
#include "http/server_head.h"
#include "jobs/scheduler.h"
#include "servers/protocol_servers.h"
#include "tests/support/manual_clock.h"
#include "tests/support/wait.h"
#include "transceiver/connection.h"
#include "transceiver/message_handler.h"
#include "transceiver/transceiver.h"

namespace zrtest {

/// Hands every message to a function.
class BedHandler : public ZrJob, public ZrMessageHandler {
 public:
  using Message = std::shared_ptr<ZrXHeader>;
  explicit BedHandler(std::function<int(const Message&)> handle) : handle_(std::move(handle)) {}
  ZrJob& HandlerJob() override { return *this; }
  bool AttachTransceiver(ZrTransceiver& transceiver) override {
    transceiver_ = &transceiver;
    return true;
  }
  ZrTransceiver* EnterTransceiver() override { return transceiver_; }
  void DetachTransceiver(ZrTransceiver&) override { transceiver_ = nullptr; }
  int HandleMessage(const std::string&, Message message) override { return handle_(message); }
  bool CannotWait(const ZrXHeader& message) override { return message.path == "/quick"; }
  bool OnHeadComplete(ZrXHeader& head) override {
    head.bodyUnwanted = head.path == "/unwanted";
    return true;
  }

 private:
  const std::function<int(const Message&)> handle_;
  ZrTransceiver* transceiver_ = nullptr;
};

class ServerBed {
  // First, as servers report until their end.
  ZrMutex lock_;
  std::vector<ZrServerCallback_t> records_ ZR_GUARDED_BY(lock_);

 public:
  using Message = BedHandler::Message;

  explicit ServerBed(const ZrClock& clock = ZrClock::System(),
                     std::uint64_t memoryLimit = ZrMemoryBudget::DefaultLimit())
      : transceiver(scheduler, zr::ProtocolServers(), clock, memoryLimit),
        handler(zr::MakeJob<BedHandler>([this](const Message& m) { return onMessage(*this, m); })) {
    transceiver.AddClient(handler);
  }
  ~ServerBed() {
    transceiver.StopServers();
    transceiver.RemoveClient(handler);
  }

  /// Opens a server of that protocol kind and waits until it listens; returns its port.
  int Open(std::uint32_t kind, const std::map<std::string, std::string>& options = {}) {
    const std::size_t before = Records(ZrServerCallback_t::kListening).size();
    Start(kind, options);
    if (!WaitFor([&] { return Records(ZrServerCallback_t::kListening).size() > before; })) {
      throw std::runtime_error("no server");
    }
    return std::stoi(Records(ZrServerCallback_t::kListening).back().info.Get("port"));
  }
  void Start(std::uint32_t kind, const std::map<std::string, std::string>& options) {
    const auto configuration = zr::MakeJob<ZrXServerHeader>(true, kind);
    configuration->SetOption("tcp_port", "0");
    for (const auto& [name, value] : options) configuration->SetOption(name, value);
    opened = transceiver.OpenServer(*handler, configuration, callback);
  }
  /// The reports of one kind so far.
  std::vector<ZrServerCallback_t> Records(std::int32_t kind) {
    ZrLock hold(lock_);
    std::vector<ZrServerCallback_t> found;
    for (const auto& record : records_) {
      if (record.kind == kind) found.push_back(record);
    }
    return found;
  }
  /// Answers a request; an empty body is sent as such. Any thread.
  void Answer(const ZrXHeader& request, std::string_view body, std::uint64_t status = 200) {
    const auto answer = request.MakeResponse();
    answer->SetBodyText(body);
    answer->SetStatus(status);
    Send(request, answer);
  }
  void Send(const ZrXHeader& request, const std::shared_ptr<ZrXHeader>& answer) {
    answer->SetState(zr::kHeadStateComplete);
    transceiver.Send(*handler, answer, callback, request.target, 1);
  }
  bool WaitForConnections(std::size_t count) {
    return WaitFor([&] { return transceiver.ConnectionCount() == count; });
  }

  ZrRinvalScheduler2 scheduler;
  std::function<int(ServerBed&, const Message&)> onMessage = [](ServerBed& bed, const Message& m) {
    bed.Answer(*m, m->path + "|" + std::string(m->body->Unread()));
    return 1;
  };
  ZrServerCallback callback = [this](ZrServerCallback_t& record) {
    ZrLock hold(lock_);
    records_.push_back(record);
    return true;
  };
  ZrTransceiver transceiver;
  std::shared_ptr<BedHandler> handler;
  std::string opened;  // what OpenServer answered last
};

}  // namespace zrtest

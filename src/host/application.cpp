#include "host/application.h"

#include <algorithm>
#include <exception>
#include <typeinfo>
#include <utility>

#include "base/batch.h"
#include "base/line_writer.h"
#include "base/number.h"
#include "handlers/cgi.h"
#include "handlers/compression.h"
#include "handlers/request_handler.h"
#include "handlers/site.h"
#include "handlers/static_files.h"
#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "http/server_head.h"
#include "servers/protocol_servers.h"
#include "servers/request_pool.h"
#include "storage/app_storage.h"

/// The application has no base class: derived applications override its own operations, and the
/// request handlers' questions arrive there through this object.
class ZrQuarnApplication2::Questions : public ZrRequestApplication {
 public:
  explicit Questions(ZrQuarnApplication2& application) : application_(application) {}
  ZrCommandHandler* nullQuery(const std::string& name) override {
    return application_.nullQuery(name);
  }
  void dispatchToHandler(const std::string& name, ZrXHeader& request, ZrXResponseHeader& answer,
                         const std::string& command) override {
    application_.dispatchToHandler(name, request, answer, command);
  }
  bool takesCommands() override { return application_.takesCommands(); }
  bool hasStoredValue(const std::string& name) override {
    return application_.hasStoredValue(name);
  }
  bool fillFromStorage(const std::string& name, ZrXHeader& head) override {
    return application_.fillFromStorage(name, head);
  }

 private:
  ZrQuarnApplication2& application_;
};

namespace {

/// As the options say; else as many threads as the machine has cores.
ZrIoTeamSize TeamOf(const ZrOptionMap& options) {
  ZrIoTeamSize team = ZrIoTeamSize::OfMachine();
  const auto threads = zr::ParseDigits(options.Get("io_threads"));
  if (threads && *threads > 0)
    team.most = static_cast<unsigned>(std::min<std::uint64_t>(*threads, ZrIoTeamSize::kMost));
  team.atOnce = options.Get("io_threads_fixed") == "true";
  return team;
}

}  // namespace

ZrQuarnApplication2::ZrQuarnApplication2(ZrPersistentAppStorage* storage,
                                         std::vector<ZrServerDefinition> servers,
                                         ZrOptionMap options)
    : launcher_(scheduler_),
      questions_(std::make_unique<Questions>(*this)),
      scripts_(std::make_shared<ZrCgi>(scheduler_)),
      compression_(std::make_shared<ZrCompression>(scheduler_)),
      content_(std::make_shared<ZrStaticFiles>(scripts_)),
      transceiver_(scheduler_, zr::ProtocolServers(zr::OutgoingPools()), ZrClock::System(),
                   ZrMemoryBudget::DefaultLimit(), TeamOf(options)),
      storage_(storage),
      servers_(std::move(servers)),
      options_(std::move(options)),
      idSource_("id") {}

ZrQuarnApplication2::~ZrQuarnApplication2() {
  // First everything that runs ends, so that nothing below is used while it goes.
  stopServers();
  for (const ZrServerDefinition& server : servers_)
    if (server.client) transceiver_.RemoveClient(server.client);
  scheduler_.Stop();
  ZrLock hold(handlerLock_);
  for (auto& [name, handler] : handlers_) {
    // Out of the map before its release: a handler may ask for itself while it goes.
    ZrCommandHandler* const released = std::exchange(handler, nullptr);
    try {
      if (released != nullptr) released->Release();
    } catch (...) {
      // Its owner's own failure; the others are released all the same.
    }
  }
  handlers_.clear();
}

void ZrQuarnApplication2::stopServers() {
  // The servers with the requests that they are answering, then the programs that still make
  // answers.
  transceiver_.StopServers();
  scripts_->Stop();
  compression_->Stop();
}

void ZrQuarnApplication2::startServers() {
  const ZrOptionMap options = getOptions();
  for (ZrServerDefinition& server : servers_) {
    const auto client = zr::MakeJob<ZrTransceiverClient>(
        [this](ZrServerCallback_t& record) { return onServerEvent(record); }, options,
        questions_.get(), content_);
    client->AnswerAtOnce();
    if (server.site)
      client->SetSite(server.site);
    else if (server.options.Get("semantics") == "standard")
      client->SetSite(zr::MakeSite());
    if (server.options.Get("compression") != "no") client->Compress(compression_);
    transceiver_.AddClient(client);
    server.client = client;

    const auto head =
        zr::MakeJob<ZrXServerHeader>(true, static_cast<std::uint32_t>(server.protocolKind));
    head->SetOption("tcp_port", std::to_string(server.port));
    head->SetOption("tcp_address", server.address);
    head->SetOption("semantics", server.options.Get("semantics"));
    head->SetOption("logformat", server.options.Get("logformat"));
    if (server.options.Has("bind")) head->SetOption("bind", server.options.Get("bind"));
    if (server.options.Has("quiet")) head->SetOption("quiet", server.options.Get("quiet"));
    if (head->ProtocolKind() == zr::kProtocolHttps) {
      head->SetOption("cacertificate", server.options.Get("cacertificate", "cacert.pem"));
      head->SetOption("privatekey", server.options.Get("privatekey", "privkey.pem"));
    }
    client->OpenServer(head);
  }
}

bool ZrQuarnApplication2::onServerEvent(ZrServerCallback_t& record) {
  try {
    if (logSink_ && record.kind == ZrServerCallback_t::kMessageLogged)
      logSink_(record.info.View("logging"));
    else
      transceiver_.PrintLogRecord(record);
  } catch (...) {
    // The line is lost to its sink alone.
  }
  if (record.kind == ZrServerCallback_t::kListening) OnListening(record);
  if (observer_) observer_(record);  // what it throws ends in the request handler
  return true;
}

void ZrQuarnApplication2::OnListening(const ZrServerCallback_t& record) {
  const std::string address = record.info.Get("address");
  const std::string port = record.info.Get("port");
  const std::string protocol = record.info.Get("protocolstring");
  bool popup = false;
  std::string command;
  {
    ZrLock hold(optionsLock_);
    if (protocol == "http" || protocol == "https") {
      options_.Set("tcp_port_" + protocol, port);
      options_.Set("tcp_address_" + protocol, address);
    }
    popup = options_.Get("no_browser_popup").empty();
    command = options_.Get("_app_context_commandurl");
  }
  if (popup && protocol == "http" && !port.empty() && !address.empty())
    OpenInBrowser(protocol + "://" + address + ":" + port + (command.empty() ? "/" : command));
}

void ZrQuarnApplication2::OpenInBrowser(const std::string& url) {
  if (!launcher_.open(url, "text/html"))
    ZrLineWriter::Instance().Output().PushLines("\nplease, open document at " + url + "\n\n");
}

void ZrQuarnApplication2::openDocument(const std::string& address, std::int32_t port,
                                       const std::string& protocol) {
  const bool first = address.empty() && port == 0 && !servers_.empty();
  OpenInBrowser(protocol + "://" + (first ? servers_.front().address : address) + ":" +
                std::to_string(first ? servers_.front().port : port));
}

ZrCommandHandler* ZrQuarnApplication2::nullQuery(const std::string& /*name*/) { return nullptr; }

ZrCommandHandler* ZrQuarnApplication2::registerHandler(ZrCommandHandler* handler) {
  if (handler != nullptr) {
    ZrLock hold(handlerLock_);
    handlers_[handler->Name()] = handler;
    anyHandler_ = true;
  }
  return handler;
}

bool ZrQuarnApplication2::takesCommands() {
  return anyHandler_ || typeid(*this) != typeid(ZrQuarnApplication2);
}

bool ZrQuarnApplication2::hasHandler(const std::string& name) {
  ZrLock hold(handlerLock_);
  return handlers_.find(name) != handlers_.end();
}

void ZrQuarnApplication2::dispatchToHandler(const std::string& name, ZrXHeader& request,
                                            ZrXResponseHeader& answer, const std::string& command) {
  ZrLock hold(handlerLock_);
  if (const auto found = handlers_.find(name); found != handlers_.end() && found->second != nullptr)
    found->second->Request(request, answer, command);
  const ZrXResponseHeader::Handover& handover = answer.HandoverRecord();
  if (handover.handoverName == name && handover.handoverHandler != nullptr)
    handlers_[name] = handover.handoverHandler;
}

bool ZrQuarnApplication2::hasStoredValue(const std::string& name) {
  // Mostly there is none at all; that is looked up once for a batch of requests.
  struct NothingStored {
    bool known = false;
    void Clear() { known = false; }
  };
  ZrBatch* const batch = ZrBatch::Current();
  NothingStored* const nothing = batch == nullptr ? nullptr : &batch->Of<NothingStored>(this);
  if (nothing != nullptr && nothing->known) return false;
  ZrLock hold(storageLock_);
  if (nothing != nullptr) nothing->known = storage_ == nullptr || storage_->Variables().empty();
  return storage_ != nullptr && storage_->Variables().contains(name);
}

bool ZrQuarnApplication2::fillFromStorage(const std::string& name, ZrXHeader& head) {
  std::string text;
  if (storage_ != nullptr) {
    ZrLock hold(storageLock_);
    text = storage_->Variables()[name].Content();
  }
  head.SetBodyText(text);
  return true;
}

std::string ZrQuarnApplication2::newId() { return idSource_.MakeName(); }

ZrPersistentAppStorage* ZrQuarnApplication2::getStorage() { return storage_; }

ZrTransceiver& ZrQuarnApplication2::getTransceiver() { return transceiver_; }

ZrRinvalScheduler2& ZrQuarnApplication2::getScheduler() { return scheduler_; }

ZrOptionMap ZrQuarnApplication2::getOptions() {
  ZrLock hold(optionsLock_);
  return options_;
}

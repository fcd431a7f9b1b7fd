// velkoro::Server over the application object: the options become its definitions, the handlers
// stand in front of its files.

#include "velkoro/server.h"

#include <algorithm>
#include <array>
#include <exception>
#include <thread>
#include <utility>

#include "base/exception.h"
#include "base/line_writer.h"
#include "base/path.h"
#include "base/printable.h"
#include "embed/address.h"
#include "embed/handlers.h"
#include "embed/routed_content.h"
#include "host/application.h"
#include "http/protocol_kind.h"
#include "jobs/job_registry.h"
#include "jobs/threads_rest.h"
#include "net/tls_context.h"
#include "platform/filesystem.h"
#include "platform/io.h"
#include "platform/process.h"
#include "platform/system.h"

namespace velkoro {
namespace {

/// How long a start may take; a port that is taken says so at once.
constexpr std::chrono::seconds kLongestStart{20};
/// What is written at the end gets that long to leave.
constexpr std::chrono::seconds kLastBytes{1};
constexpr std::chrono::hours kLongestLimit{24 * 365};

constexpr std::array kProtocols = {zr::kProtocolHttps, zr::kProtocolHttp};

std::string Quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

std::vector<zr::ListenAddress> ReadAddresses(const std::vector<std::string>& texts) {
  if (texts.empty()) throw ServerError("there is no address to listen at");
  std::vector<zr::ListenAddress> addresses;
  for (const std::string& text : texts) {
    try {
      addresses.push_back(zr::ReadListenAddress(text, kProtocols));
    } catch (const zr::AddressError& error) {
      throw ServerError("the address " + Quoted(text) + ": " + error.what());
    }
  }
  return addresses;
}

void CheckDirectory(const std::string& directory) {
  if (directory.empty()) return;
  const zr::ZrPathKind kind = zr::PathKind(directory);
  if (kind == zr::ZrPathKind::kMissing)
    throw ServerError("the directory " + Quoted(directory) + " is not there");
  if (kind != zr::ZrPathKind::kDirectory)
    throw ServerError("the directory " + Quoted(directory) + " is a file");
  if (zr::AbsolutePath(directory).find('\\') != std::string::npos)
    throw ServerError("the directory " + Quoted(directory) + " has a backslash in its path");
  if (const int error = zr::CheckAccess(directory, zr::ZrAccess::kEnter); error != 0)
    throw ServerError("the directory " + Quoted(directory) + ": " + zr::SystemErrorText(error));
}

// What is given is looked at although nobody asks for it: it is meant to be there.
void CheckKeyPair(const ServerOptions& options, bool needed) {
  const bool whole = !options.certificate.empty() && !options.privateKey.empty();
  if (needed && !whole) throw ServerError("https needs a certificate and its private key");
  for (const std::string& file : {options.certificate, options.privateKey}) {
    const int error = file.empty() ? 0 : zr::CheckAccess(file, zr::ZrAccess::kRead);
    if (error != 0)
      throw ServerError("the file " + Quoted(file) +
                        " cannot be read: " + zr::SystemErrorText(error));
  }
  if (!whole) return;
  try {
    zr::MakeTlsServerContext(options.certificate, options.privateKey);
  } catch (const ZrException_SSL& failure) {
    throw ServerError("the certificate " + Quoted(options.certificate) + " with the key " +
                      Quoted(options.privateKey) + " cannot be used: " + failure.what());
  }
}

// Programs run in the directory of their page. One that is not named need not be there.
std::string PhpProgram(const std::string& given) {
  if (given.empty() || given == ServerOptions().php) return given;
  if (given.find('/') == std::string::npos) {
    if (zr::FindProgram(given, zr::EnvironmentValue("PATH").value_or(""))) return given;
    throw ServerError("there is no program " + Quoted(given) + " on PATH for PHP");
  }
  const std::string file = zr::AbsolutePath(given);
  if (zr::PathKind(file) != zr::ZrPathKind::kRegular ||
      zr::CheckAccess(file, zr::ZrAccess::kEnter) != 0)
    throw ServerError("the PHP interpreter " + Quoted(given) + " is no program that can be run");
  return file;
}

ServerOptions Checked(ServerOptions options) {
  options.php = PhpProgram(options.php);
  if (options.handlerLimit.count() < 0 || options.grace.count() < 0)
    throw ServerError("a time limit is negative");
  options.handlerLimit = std::min<std::chrono::milliseconds>(options.handlerLimit, kLongestLimit);
  if (options.handlerThreads == 0)
    options.handlerThreads = std::max(1U, std::thread::hardware_concurrency());
  return options;
}

std::string UrlText(const ZrOptionMap& info) {
  return info.Get("protocolstring") + "://" + info.Get("address") + ":" + info.Get("port");
}

}  // namespace

/// The server from its construction to its end.
class [[gnu::visibility("hidden")]] Server::Running {
 public:
  explicit Running(Options options)
      : options_(Checked(std::move(options))),
        addresses_(ReadAddresses(options_.listen)),
        handlers_(std::make_shared<ZrHandlers>(options_.handlerThreads, options_.handlerLimit)),
        urls_(addresses_.size()) {
    CheckDirectory(options_.directory);
    const bool https = std::any_of(
        addresses_.begin(), addresses_.end(),
        [](const zr::ListenAddress& one) { return one.protocolKind == zr::kProtocolHttps; });
    CheckKeyPair(options_, https);
    handlers_->failed = [this](const std::string& line) { OnFailed(line); };
  }
  ~Running() {
    Stop(options_.grace);
    handlers_->pool.Close();
    handlers_->failed = nullptr;  // those who answer later may still hold the handlers
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  ZrHandlers& Unstarted() ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    if (started_) throw ServerError("what a server does is set before it starts");
    return *handlers_;
  }
  void OnEvent(std::function<void(const Event&)> observer) {
    Unstarted();
    observer_ = std::move(observer);
  }

  std::string Start() ZR_EXCLUDES(lock_) {
    ZrQuarnApplication2& application = Make();
    try {
      application.startServers();
    } catch (const std::exception& failure) {
      Stop({});
      throw ServerError(failure.what());
    }
    std::string failure = WaitUntilListening();
    if (!failure.empty()) {
      Stop({});
      throw ServerError(failure);
    }
    if (options_.openBrowser) {
      const zr::ListenAddress& first = addresses_.front();
      application.openDocument(first.address, Port(),
                               std::string(zr::ProtocolSchemeName(first.protocolKind)));
    }
    return Urls().front();
  }

  void Stop(std::chrono::milliseconds grace) ZR_EXCLUDES(lock_) {
    if (handlers_->pool.IsCaller())
      throw std::logic_error("what a server calls cannot stop it: it would wait for itself");
    std::unique_ptr<ZrQuarnApplication2> application;
    {
      ZrLock hold(lock_);
      application = std::move(application_);
      urls_.assign(urls_.size(), {});
    }
    if (!application) return;
    application->stopAccepting();
    application->waitForAnswers(grace);
    handlers_->pool.Close();
    application->waitForAnswers(kLastBytes);
    application.reset();
    // A thread of the jobs may still be destroying what was dropped by an event.
    ZrJobRegistry::Instance().WaitForReaper();
    zr::FlushLines(kLastBytes);
  }

  std::vector<std::string> Urls() ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    return urls_.front().empty() ? std::vector<std::string>() : urls_;
  }
  int Port() ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    const std::string& url = urls_.front();
    return url.empty() ? 0 : std::stoi(url.substr(url.rfind(':') + 1));
  }

 private:
  const ZrThreadsRest rest_;

  ZrQuarnApplication2& Make() ZR_EXCLUDES(lock_) {
    std::vector<ZrServerDefinition> servers;
    for (const zr::ListenAddress& address : addresses_) {
      ZrServerDefinition server{.address = address.address,
                                .port = address.port,
                                .protocolKind = static_cast<std::int32_t>(address.protocolKind)};
      server.options.Set("semantics",
                         options_.semantics == Semantics::kStandard ? "standard" : "minimal");
      server.options.Set("bind", "address");
      // What a port's failure means is said by Start(); a peer's is no affair of the program's.
      server.options.Set("quiet", "peers");
      server.options.Set("cacertificate", options_.certificate);
      server.options.Set("privatekey", options_.privateKey);
      servers.push_back(std::move(server));
    }
    ZrOptionMap settings;
    settings.Set("no_browser_popup", "true");
    if (!options_.directory.empty()) {
      settings.Set("_baseDirectoryHTTP",
                   zr::NormalizeDirectoryPath(zr::AbsolutePath(options_.directory)));
    }
    if (!options_.php.empty()) settings.Set("_phpbinname", options_.php);
    auto application =
        std::make_unique<ZrQuarnApplication2>(nullptr, std::move(servers), std::move(settings));
    application->setContent([this](std::shared_ptr<ZrContentHandler> files) {
      return std::make_shared<ZrRoutedContent>(handlers_, std::move(files),
                                               !options_.directory.empty());
    });
    application->setObserver([this](const ZrServerCallback_t& record) { OnReport(record); });
    application->setLogSink([this](std::string_view line) {
      const ZrHandlerPool::Caller caller(handlers_->pool);
      if (options_.log) options_.log(line);
    });
    ZrLock hold(lock_);
    if (std::exchange(started_, true)) throw ServerError("a server starts once: make another one");
    application_ = std::move(application);
    return *application_;
  }

  std::string WaitUntilListening() ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    const auto all = [this]() ZR_REQUIRES(lock_) {
      return std::find(urls_.begin(), urls_.end(), "") == urls_.end();
    };
    const bool told = reported_.WaitFor(lock_, kLongestStart, [this, &all]() ZR_REQUIRES(lock_) {
      return !failure_.empty() || all();
    });
    return told ? failure_ : "the server does not come to listen";
  }

  void OnReport(const ZrServerCallback_t& record) ZR_EXCLUDES(lock_) {
    switch (record.kind) {
      case ZrServerCallback_t::kListening:
        OnListening(record.info);
        Tell(Event::Kind::kListening, UrlText(record.info));
        break;
      case ZrServerCallback_t::kBindFailed: {
        ZrLock hold(lock_);
        const std::string reason = record.info.Get("reason");
        failure_ = reason.empty() ? "the port " + record.info.Get("port") + " of " +
                                        UrlText(record.info) + " is taken or not allowed"
                                  : "the address of " + UrlText(record.info) +
                                        " cannot be listened at: " + reason;
        reported_.NotifyAll();
        break;
      }
      case ZrServerCallback_t::kConnectionAccepted:
        Tell(Event::Kind::kConnected,
             record.info.Get("remoteaddress") + ":" + record.info.Get("remoteport"));
        break;
      default:
        break;
    }
  }

  // The reports come in any order, the URLs stand in that of the addresses.
  void OnListening(const ZrOptionMap& info) ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    for (std::size_t at = 0; at < urls_.size(); ++at) {
      const zr::ListenAddress& address = addresses_[at];
      if (!urls_[at].empty() || address.address != info.Get("address") ||
          zr::ProtocolSchemeName(address.protocolKind) != info.Get("protocolstring") ||
          (address.port != 0 && std::to_string(address.port) != info.Get("port")))
        continue;
      urls_[at] = UrlText(info);
      break;
    }
    reported_.NotifyAll();
  }

  // A handler's exception may say what a client sent.
  void OnFailed(const std::string& failure) {
    std::string line;
    zr::AppendPrintable(line, failure);
    zr::WriteDiagnostic("a handler failed", "velkoro: " + line);
    Tell(Event::Kind::kHandlerFailed, std::move(line));
  }

  void Tell(Event::Kind kind, std::string text) {
    if (!observer_) return;
    const ZrHandlerPool::Caller caller(handlers_->pool);
    try {
      observer_({kind, std::move(text)});
    } catch (const std::exception& failure) {
      const char* const what = failure.what();
      zr::WriteDiagnostic("an observer failed", std::string("velkoro: the function for events: ") +
                                                    (what == nullptr ? "" : what));
    } catch (...) {
      // The observer's own failure.
    }
  }

  const Options options_;
  const std::vector<zr::ListenAddress> addresses_;
  const std::shared_ptr<ZrHandlers> handlers_;
  std::function<void(const Event&)> observer_;  // constant once started

  ZrMutex lock_;  // never held while calling out
  bool started_ ZR_GUARDED_BY(lock_) = false;
  std::vector<std::string> urls_ ZR_GUARDED_BY(lock_);  // in the order of the addresses
  std::string failure_ ZR_GUARDED_BY(lock_);
  ZrCondition reported_;  // urls_ or failure_ changed
  std::unique_ptr<ZrQuarnApplication2> application_ ZR_GUARDED_BY(lock_);
};

Server::Server(Options options) : running_(std::make_unique<Running>(std::move(options))) {}

Server::~Server() = default;

Server& Server::Handle(std::string_view method, std::string_view pattern, Handler handler) {
  running_->Unstarted().routes.Add(method, pattern, std::move(handler));
  return *this;
}

Server& Server::Command(std::string_view name, Handler handler) {
  if (name.empty()) throw ServerError("a command needs a name");
  if (!handler) throw ServerError("the command " + Quoted(name) + " has no handler");
  if (!running_->Unstarted().commands.emplace(name, std::move(handler)).second)
    throw ServerError("there are two commands of the name " + Quoted(name));
  return *this;
}

Server& Server::Page(std::string_view name, std::string html) {
  if (name.starts_with('/') || name.find_first_of("{}?#%") != std::string_view::npos)
    throw ServerError("the page " + Quoted(name) + ": its name cannot be a path");
  return Handle("GET", "/" + std::string(name),
                [html = std::move(html)](const Request&, Answer& answer) { answer.Html(html); });
}

Server& Server::Before(Guard guard) {
  if (!guard) throw ServerError("a function before the handlers is missing");
  running_->Unstarted().guards.push_back({{}, std::move(guard)});
  return *this;
}

Server& Server::Before(std::string_view path, Guard guard) {
  if (!guard) throw ServerError("the function before " + Quoted(path) + " is missing");
  if (!path.starts_with('/'))
    throw ServerError("the path " + Quoted(path) + " does not begin with '/'");
  if (const std::string why = zr::WhyNoPath(path); !why.empty())
    throw ServerError("the path " + Quoted(path) + ": " + why);
  if (path.find_first_of("{}") != std::string_view::npos)
    throw ServerError("the path " + Quoted(path) + ": it is one path and those below, no pattern");
  while (path.ends_with('/')) path.remove_suffix(1);
  running_->Unstarted().paths.push_back({std::string(path), std::move(guard)});
  return *this;
}

Server& Server::After(Witness witness) {
  if (!witness) throw ServerError("a function after the handlers is missing");
  running_->Unstarted().witnesses.push_back(std::move(witness));
  return *this;
}

Server& Server::OnEvent(std::function<void(const Event&)> observer) {
  running_->OnEvent(std::move(observer));
  return *this;
}

std::string Server::Start() { return running_->Start(); }

void Server::Stop(std::chrono::milliseconds grace) { running_->Stop(grace); }

int Server::Port() const { return running_->Port(); }

std::string Server::Url() const {
  const std::vector<std::string> urls = Urls();
  return urls.empty() ? std::string() : urls.front();
}

std::vector<std::string> Server::Urls() const { return running_->Urls(); }

}  // namespace velkoro

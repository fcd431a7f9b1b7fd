// velkoro serve: a host of the static library that serves a directory until a signal ends it. The
// servers report on threads of their own; this thread sleeps until one of them or a signal has
// news.

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/exception.h"
#include "cli/accesslog.h"
#include "cli/command.h"
#include "cli/listenurl.h"
#include "host/application.h"
#include "http/protocol_kind.h"
#include "net/certificate.h"
#include "platform/filesystem.h"
#include "platform/output.h"
#include "platform/process.h"
#include "platform/signals.h"
#include "platform/sync.h"
#include "platform/system.h"
#include "platform/thread.h"
#include "storage/app_storage.h"

namespace zr::cli {
namespace {

constexpr const char* kDefaultUrl = "https://127.0.0.1:8443";
constexpr const char* kPhpProgram = "php-cgi";
constexpr double kDefaultGrace = 5;
constexpr double kMaxGrace = 86400;

constexpr const char* kExamples =
    "Every server takes connections on all local addresses; ADDRESS is what it is called.\n"
    "Examples:\n"
    "  velkoro serve www\n"
    "  velkoro serve www --listen https://127.0.0.1:8443 --listen http://[::1]:8080\n"
    "  velkoro serve www --certificate cert.pem --private-key key.pem --log access.log";

struct ServeOptions {
  std::string directory = ".";
  std::vector<std::string> listen;
  std::vector<std::string> pages;
  std::string certificate;
  std::string privateKey;
  std::string state;
  std::string php;
  std::string log;
  double grace = kDefaultGrace;
  bool open = false;
  bool waitForPort = false;
};

/// What the servers' threads have to tell; the main thread takes it in order.
class News {
 public:
  explicit News(ZrSignalWaiter& waiter) : waiter_(waiter) {}
  void Tell(const ZrServerCallback_t& record) ZR_EXCLUDES(lock_) {
    if (record.kind == ZrServerCallback_t::kListening ||
        record.kind == ZrServerCallback_t::kBindFailed) {
      ZrLock hold(lock_);
      records_.push_back(record);
      waiter_.Wake();
    }
  }
  std::optional<ZrServerCallback_t> Take() ZR_EXCLUDES(lock_) {
    ZrLock hold(lock_);
    if (records_.empty()) {
      return std::nullopt;
    }
    ZrServerCallback_t first = std::move(records_.front());
    records_.pop_front();
    return first;
  }

 private:
  ZrSignalWaiter& waiter_;
  ZrMutex lock_;
  std::deque<ZrServerCallback_t> records_ ZR_GUARDED_BY(lock_);
};

std::string DocumentDirectory(const std::string& given) {
  std::string path = std::filesystem::absolute(given).lexically_normal().string();
  if (path.size() > 1 && path.ends_with('/')) {
    path.pop_back();
  }
  if (PathKind(path) != ZrPathKind::kDirectory) {
    throw std::runtime_error("the document directory '" + given +
                             "' is not there; name a directory that is");
  }
  if (path.find('\\') != std::string::npos) {
    throw std::runtime_error("the document directory '" + path +
                             "' has a backslash in its path; rename it");
  }
  return path;
}

CertificateFiles KeyPair(const ServeOptions& options) {
  if (options.certificate.empty() != options.privateKey.empty()) {
    throw UsageError("--certificate and --private-key belong together: give both or none");
  }
  if (!options.certificate.empty()) {
    return {options.certificate, options.privateKey};
  }
  const std::string state = options.state.empty() ? StateDirectory("velkoro") : options.state;
  if (state.empty()) {
    throw std::runtime_error(
        "there is no home directory to keep a certificate in; name a directory with --state");
  }
  try {
    return EnsureSelfSignedCertificate(state + "/localhost");
  } catch (const ZrException& failure) {
    throw std::runtime_error(std::string(failure.what()) + "; name another directory with --state");
  }
}

constexpr std::size_t kMaxPageBytes = std::size_t{256} << 20;

/// The pages that are answered from memory, each given as NAME=FILE.
ZrNamedValueTable StoredPages(const std::vector<std::string>& pages) {
  ZrNamedValueTable table;
  for (const std::string& page : pages) {
    const std::size_t equals = page.find('=');
    const std::string name = page.substr(0, equals);
    if (equals == std::string::npos || name.empty() || name.front() == '/' || name.front() == '.') {
      throw UsageError("--page " + page + ": give NAME=FILE, the name as it stands behind the " +
                       "first slash of the URL and without a leading dot");
    }
    const std::string file = page.substr(equals + 1);
    std::optional<std::string> text = ReadWholeFile(file, kMaxPageBytes);
    if (!text) {
      throw std::runtime_error("the page '" + file + "' for --page " + name +
                               " cannot be read; name a readable file of at most 256 MiB");
    }
    table[name].text = std::move(*text);
  }
  return table;
}

/// The program asked for, else the usual one where it is installed.
std::string PhpInterpreter(const std::string& given) {
  if (!given.empty()) {
    return given;
  }
  return FindProgram(kPhpProgram, EnvironmentValue("PATH").value_or("")) ? kPhpProgram : "";
}

/// One run of the command.
class Serving {
 public:
  explicit Serving(const ServeOptions& options) : options_(options) {}

  int Run() {
    const std::vector<ZrServerDefinition> servers = Definitions();
    directory_ = DocumentDirectory(options_.directory);
    std::optional<AccessLog> log;
    if (!options_.log.empty()) {
      log.emplace(options_.log);
    }
    ZrOptionMap settings;
    settings.Set("_baseDirectoryHTTP", directory_);
    settings.Set("no_browser_popup", "true");
    if (const std::string php = PhpInterpreter(options_.php); !php.empty()) {
      settings.Set("_phpbinname", php);
    }
    ZrPersistentAppStorage storage;
    storage.SetVariables(StoredPages(options_.pages));
    RaiseDescriptorLimit();
    ZrSignalWaiter signals;
    News news(signals);
    ZrQuarnApplication2 application(&storage, servers, settings);
    application.setObserver([&news](const ZrServerCallback_t& record) { news.Tell(record); });
    if (log) {
      application.setLogSink([&log](std::string_view line) { log->Write(line); });
    }
    Start(application);
    return Attend(application, signals, news, log);
  }

 private:
  std::vector<ZrServerDefinition> Definitions() {
    std::vector<ZrServerDefinition> servers;
    for (const std::string& text : options_.listen) {
      const ListenUrl url = ParseListenUrl(text);
      ZrServerDefinition server{.address = url.address,
                                .port = url.port,
                                .protocolKind = static_cast<std::int32_t>(url.protocolKind)};
      servers.push_back(std::move(server));
    }
    for (ZrServerDefinition& server : servers) {
      if (server.protocolKind == static_cast<std::int32_t>(kProtocolHttps)) {
        if (pair_.certificate.empty()) {
          pair_ = KeyPair(options_);
        }
        server.options.Set("cacertificate", pair_.certificate);
        server.options.Set("privatekey", pair_.privateKey);
      }
    }
    return servers;
  }

  void Start(ZrQuarnApplication2& application) const {
    try {
      application.startServers();
    } catch (const ZrException_SSL& failure) {
      throw std::runtime_error("the certificate '" + pair_.certificate + "' and the private key '" +
                               pair_.privateKey + "' cannot be used (" + failure.what() +
                               "); give a PEM certificate and its unencrypted " +
                               "PEM key with --certificate and --private-key");
    }
  }

  /// Until a signal ends the servers or a port is taken.
  int Attend(ZrQuarnApplication2& application, ZrSignalWaiter& signals, News& news,
             std::optional<AccessLog>& log) {
    while (true) {
      switch (signals.Wait()) {
        case Signal::kStop:
          Finish(application, signals);
          return kSuccess;
        case Signal::kReopen:
          if (log) {
            log->Reopen();
          }
          break;
        case Signal::kWake:
          while (const auto record = news.Take()) {
            if (!OnNews(application, *record)) {
              return kFailure;
            }
          }
          break;
      }
    }
  }

  /// False when the program is to end.
  bool OnNews(ZrQuarnApplication2& application, const ZrServerCallback_t& record) {
    const std::string address = record.info.Get("address");
    const std::string port = record.info.Get("port");
    const std::string protocol = record.info.Get("protocolstring");
    const std::string url = protocol + "://" + address + ":" + port;
    if (record.kind == ZrServerCallback_t::kListening) {
      std::string line = "velkoro: serving " + directory_ + " on " + url + "/";
      if (protocol == "https") {
        line += " (certificate " + pair_.certificate + ")";
      }
      WriteOutputLine(line);
      if (options_.open && !opened_ && (protocol == "http" || protocol == "https")) {
        opened_ = true;
        application.openDocument(address, std::stoi(port), protocol);
      }
      return true;
    }
    const std::string what = "port " + port + " for " + url + " is taken or not allowed; ";
    if (options_.waitForPort) {
      PrintError(what + "trying again every 30 seconds");
      return true;
    }
    PrintError(what + "choose another with --listen, or wait for it with --wait-for-port");
    return false;
  }

  /// Answers in progress are finished, unless that takes too long or another signal comes.
  void Finish(ZrQuarnApplication2& application, ZrSignalWaiter& signals) const {
    application.stopAccepting();
    std::atomic<bool> over{false};
    ZrThread answers = ZrThread::Start("velkoro_grace", [&] {
      application.waitForAnswers(std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::duration<double>(options_.grace)));
      over = true;
      signals.Wake();
    });
    while (!over && signals.Wait() != Signal::kStop) {
    }
    application.abandonAnswers();
    answers.Join();
  }

  const ServeOptions& options_;
  std::string directory_;
  CertificateFiles pair_;
  bool opened_ = false;
};

}  // namespace

void AddServe(CLI::App& program, Run& chosen) {
  const auto options = std::make_shared<ServeOptions>();
  CLI::App& serve = *program.add_subcommand("serve", "Serve a directory until a signal ends it");
  serve.add_option("DIR", options->directory, "The document directory")->capture_default_str();
  serve
      .add_option("--listen", options->listen,
                  std::string("https://, http://, quarn:// or socket://ADDRESS:PORT; repeatable; "
                              "port 0 lets the system choose [") +
                      kDefaultUrl + "]")
      ->type_name("URL")
      ->expected(1)
      ->take_all();
  serve
      .add_option("--page", options->pages,
                  "Answer /NAME with the content that FILE has at the start; repeatable")
      ->type_name("NAME=FILE")
      ->expected(1)
      ->take_all();
  serve.add_option("--certificate", options->certificate, "The server's certificate, PEM")
      ->type_name("FILE");
  serve.add_option("--private-key", options->privateKey, "Its key, PEM, not encrypted")
      ->type_name("FILE");
  serve
      .add_option("--state", options->state,
                  "Where a certificate made for localhost is kept when none is given "
                  "[$XDG_STATE_HOME/velkoro or ~/.local/state/velkoro]")
      ->type_name("DIR");
  serve
      .add_option("--php", options->php,
                  "The PHP interpreter for pages that end in .php [php-cgi, when it is installed]")
      ->type_name("PROGRAM");
  serve
      .add_option("--log", options->log,
                  "The access log, instead of standard output; SIGHUP opens it again")
      ->type_name("FILE");
  serve
      .add_option("--grace", options->grace,
                  "How long answers in progress may take after the first SIGINT or SIGTERM")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, kMaxGrace))
      ->capture_default_str();
  serve.add_flag("--wait-for-port", options->waitForPort,
                 "Keep trying when a port is taken, instead of ending");
  serve.add_flag("--open", options->open, "Show the page in the browser");
  serve.footer(kExamples);
  serve.callback([options, &chosen] {
    if (options->listen.empty()) {
      options->listen.emplace_back(kDefaultUrl);
    }
    chosen = [options] { return Serving(*options).Run(); };
  });
}

}  // namespace zr::cli

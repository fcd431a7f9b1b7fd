// velkoro serve: a host of the static library that serves a directory until a signal ends it. The
// servers report on threads of their own; the main thread sleeps until one of them or a signal has
// news.

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/exception.h"
#include "base/line_writer.h"
#include "base/printable.h"
#include "cli/accesslog.h"
#include "cli/command.h"
#include "cli/listenurl.h"
#include "cli/serve_events.h"
#include "cli/serve_setup.h"
#include "cli/site_setup.h"
#include "host/application.h"
#include "http/protocol_kind.h"
#include "platform/system.h"
#include "storage/app_storage.h"

namespace zr::cli {
namespace {

constexpr const char* kDefaultUrl = "https://127.0.0.1:8443";
constexpr double kDefaultGrace = 5;
constexpr double kMaxGrace = 86400;

constexpr const char* kExamples =
    "A server takes connections at its ADDRESS alone: 0.0.0.0 are all of IPv4, [::] all there "
    "are.\n"
    "Examples:\n"
    "  velkoro serve www\n"
    "  velkoro serve www --listen https://127.0.0.1:8443 --listen http://[::1]:8080\n"
    "  velkoro serve www --certificate cert.pem --private-key key.pem --log access.log\n"
    "  velkoro serve dist --fallback index.html --header 'X-Frame-Options: DENY' --cache 3600";

struct ServeOptions {
  std::string directory = ".";
  std::vector<std::string> listen;
  std::vector<std::string> pages;
  bool minimal = false;
  SiteOptions site;
  std::string logFormat = "velkoro";
  KeyPairOptions keys;
  std::optional<std::string> php;
  std::optional<std::string> log;
  unsigned ioThreads = 0;
  double grace = kDefaultGrace;
  bool open = false;
  bool waitForPort = false;
  bool noCompression = false;
};

/// A line on standard error that waits for nobody: the servers go on whoever reads it.
void Say(const std::string& text) { WriteErrorLine("velkoro: " + text); }

/// One run of the command.
class Serving {
 public:
  explicit Serving(const ServeOptions& options) : options_(options) {}

  // What only looks comes first: a run that is refused leaves nothing behind.
  int Run() {
    std::vector<ZrServerDefinition> servers = Definitions();
    options_.keys.CheckUsage();
    directory_ = DocumentDirectory(options_.directory);
    if (!options_.minimal) {
      const auto site = Site(options_.site, directory_);
      for (ZrServerDefinition& server : servers) server.site = site;
    }
    ZrPersistentAppStorage storage;
    storage.SetVariables(StoredPages(options_.pages));
    const std::string php = PhpInterpreter(options_.php);
    // From here on a signal is an end in order: what is made is finished or taken away.
    ServeEvents events(options_.log.has_value());
    UseKeyPair(servers);
    std::optional<AccessLog> log;
    if (options_.log) log.emplace(*options_.log);
    ZrOptionMap settings;
    settings.Set("_baseDirectoryHTTP", directory_);
    settings.Set("no_browser_popup", "true");
    if (!php.empty()) settings.Set("_phpbinname", php);
    settings.Set("io_threads", std::to_string(options_.ioThreads));
    RaiseDescriptorLimit();
    ZrQuarnApplication2 application(&storage, servers, settings);
    application.setObserver([&events](const ZrServerCallback_t& report) { events.Tell(report); });
    if (log) application.setLogSink([&log](std::string_view line) { log->Write(line); });
    events.OnHurry([&application] { application.abandonAnswers(); });
    const int status = Attend(application, events, log);
    events.OnHurry({});
    return status;
  }

 private:
  std::vector<ZrServerDefinition> Definitions() const {
    std::vector<ZrServerDefinition> servers;
    for (const std::string& text : options_.listen) {
      const ListenUrl url = ParseListenUrl(text);
      ZrServerDefinition server{.address = url.address,
                                .port = url.port,
                                .protocolKind = static_cast<std::int32_t>(url.protocolKind)};
      server.options.Set("semantics", options_.minimal ? "minimal" : "standard");
      server.options.Set("logformat", options_.logFormat);
      if (options_.noCompression) server.options.Set("compression", "no");
      if (!options_.minimal) server.options.Set("bind", "address");
      server.options.Set("quiet", "yes");  // what a port's failure means is said here
      servers.push_back(std::move(server));
    }
    return servers;
  }

  void UseKeyPair(std::vector<ZrServerDefinition>& servers) {
    const auto isHttps = [](const ZrServerDefinition& server) {
      return server.protocolKind == static_cast<std::int32_t>(kProtocolHttps);
    };
    pair_ = KeyPair(options_.keys, std::any_of(servers.begin(), servers.end(), isHttps));
    for (ZrServerDefinition& server : servers) {
      if (!isHttps(server)) continue;
      server.options.Set("cacertificate", pair_.certificate);
      server.options.Set("privatekey", pair_.privateKey);
    }
  }

  /// Until a signal ends the servers or a port is taken.
  int Attend(ZrQuarnApplication2& application, ServeEvents& events, std::optional<AccessLog>& log) {
    application.startServers();
    while (true) {
      const ServeEvents::Event event = events.Next();
      switch (event.kind) {
        case ServeEvents::Event::Kind::kStop:
          // Answers in progress are finished, unless that takes too long or another signal comes.
          application.stopAccepting();
          application.waitForAnswers(std::chrono::duration_cast<std::chrono::nanoseconds>(
              std::chrono::duration<double>(options_.grace)));
          return kSuccess;
        case ServeEvents::Event::Kind::kReopen:
          if (log) log->Reopen();
          break;
        case ServeEvents::Event::Kind::kReport:
          if (!OnReport(application, event.report)) return kFailure;
          break;
      }
    }
  }

  /// Answers no when the program is to end.
  bool OnReport(ZrQuarnApplication2& application, const ZrServerCallback_t& record) {
    const std::string address = record.info.Get("address");
    const std::string port = record.info.Get("port");
    const std::string protocol = record.info.Get("protocolstring");
    const std::string url = protocol + "://" + address + ":" + port;
    if (record.kind == ZrServerCallback_t::kListening) {
      std::string line = "velkoro: serving ";
      AppendPrintable(line, directory_);
      line.append(" on ").append(url).append("/");
      if (protocol == "https") {
        line += " (certificate ";
        AppendPrintable(line, pair_.certificate);
        line += ")";
      }
      WriteOutputLine(line);
      if (options_.open && !opened_ && (protocol == "http" || protocol == "https")) {
        opened_ = true;
        application.openDocument(address, std::stoi(port), protocol);
      }
      return true;
    }
    const std::string reason = record.info.Get("reason");
    const std::string what =
        reason.empty() ? "port " + port + " for " + url + " is taken or not allowed; "
                       : "the address of " + url + " cannot be listened at: " + reason + "; ";
    if (options_.waitForPort) {
      Say(what + "trying again every 30 seconds");
      return true;
    }
    Say(what + "choose another with --listen, or wait for it with --wait-for-port");
    return false;
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
  serve.add_option("--certificate", options->keys.certificate, "The server's certificate, PEM")
      ->type_name("FILE");
  serve.add_option("--private-key", options->keys.privateKey, "Its key, PEM, not encrypted")
      ->type_name("FILE");
  serve
      .add_option("--state", options->keys.state,
                  "Where a certificate made for localhost is kept when none is given "
                  "[$XDG_STATE_HOME/velkoro or ~/.local/state/velkoro]")
      ->type_name("DIR");
  serve.add_flag("--minimal", options->minimal,
                 "Speak the system's own small dialect of HTTP instead of what browsers and tools "
                 "expect, and take connections on every local address");
  AddSiteOptions(serve, options->site);
  serve.add_flag("--no-compression", options->noCompression,
                 "Send bodies as they are, also to clients that accept gzip or brotli");
  serve
      .add_option("--php", options->php,
                  "The PHP interpreter for pages that end in .php [php-cgi, when it is installed]")
      ->type_name("PROGRAM");
  serve
      .add_option("--log", options->log,
                  "The access log, instead of standard output; SIGHUP opens it again")
      ->type_name("FILE");
  serve
      .add_option("--log-format", options->logFormat,
                  "The form of its lines: velkoro, combined (as log analysers read it) or json")
      ->check(CLI::IsMember({"velkoro", "combined", "json"}))
      ->capture_default_str();
  serve
      .add_option("--io-threads", options->ioThreads,
                  "The most threads that receive, and that send; they come and go with the load "
                  "[one per core, at most 16]")
      ->type_name("N")
      ->check(CLI::Range(1U, ZrIoTeamSize::kMost));
  serve
      .add_option("--grace", options->grace,
                  "How long answers in progress may take after the first SIGINT or SIGTERM")
      ->type_name("SECONDS")
      ->check(Seconds(0, kMaxGrace))
      ->capture_default_str();
  serve.add_flag("--wait-for-port", options->waitForPort,
                 "Keep trying when a port is taken, instead of ending");
  serve.add_flag("--open", options->open, "Show the page in the browser");
  serve.footer(kExamples);
  serve.callback([options, &chosen, &serve] {
    if (options->minimal) RefuseSiteOptions(serve);
    if (options->listen.empty()) options->listen.emplace_back(kDefaultUrl);
    chosen = [options] { return Serving(*options).Run(); };
  });
}

}  // namespace zr::cli

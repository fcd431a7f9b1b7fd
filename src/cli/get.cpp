// velkoro get: sends requests through the pools of outgoing connections and writes the bodies of
// their answers, in the order in which they were asked for. Answers come on threads of the library;
// this thread sends, waits and writes.

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/printable.h"
#include "cli/command.h"
#include "cli/requesturl.h"
#include "handlers/request_handler.h"
#include "http/form_writer.h"
#include "http/message_head.h"
#include "jobs/scheduler.h"
#include "platform/filesystem.h"
#include "platform/io.h"
#include "platform/output.h"
#include "platform/sync.h"
#include "servers/protocol_servers.h"
#include "servers/request_pool.h"
#include "transceiver/transceiver.h"

namespace zr::cli {
namespace {

using std::chrono::steady_clock;

constexpr std::uint64_t kFirstErrorStatus = 400;
constexpr double kMaxTimeout = 86400;
constexpr std::size_t kMaxPemBytes = std::size_t{16} << 20;
constexpr const char* kNoAnswerInTime = "no answer within --timeout";
constexpr int kMaxRepeat = 1'000'000;
// Requests that are sent and not written yet, at most: their answers are held in memory.
constexpr std::size_t kMostOpen = 64;

constexpr const char* kExamples =
    "Certificates are verified against the system's store unless --ca or --insecure is given.\n"
    "Redirections are not followed. The exit status is 0 when every answer came with a status\n"
    "below 400, and 1 otherwise.\n"
    "Examples:\n"
    "  velkoro get https://example.org/\n"
    "  velkoro get http://127.0.0.1:8080/form --post name=Ada --post 'note=a b' --verbose\n"
    "  velkoro get https://localhost:8443/ --ca cert.pem --repeat 1000 --output /dev/null";

struct GetOptions {
  std::vector<std::string> urls;
  std::vector<std::string> post;
  std::string output;
  std::string ca;
  int repeat = 1;
  double timeout = 0;  // seconds; 0: the library's limits
  bool verbose = false;
  bool insecure = false;
};

/// What became of one request.
struct Outcome {
  std::shared_ptr<ZrXHeader> answer;  // empty when it failed
  ZrSendFailure failure;
};

/// Keeps outcomes by the names of their requests until they are taken.
class Asker final : public ZrTransceiverClient {
 public:
  Asker() : ZrTransceiverClient([](ZrServerCallback_t&) { return true; }, {}, nullptr, nullptr) {}

  bool AcceptHttpAnswer(const std::string& name,
                        const std::shared_ptr<ZrXHeader>& answer) override {
    Keep(name, {answer, {}});
    return ZrTransceiverClient::AcceptHttpAnswer(name, answer);
  }
  bool AcceptQuarnAnswer(const std::string& name,
                         const std::shared_ptr<ZrXHeader>& answer) override {
    Keep(name, {answer, {}});
    return true;
  }
  void MessageFailed(const std::string& name, const ZrSendFailure& failure) override {
    Keep(name, {nullptr, failure});
  }

  /// Waits for the outcome of that request; timed out when the deadline passes.
  Outcome Take(const std::string& name, std::optional<steady_clock::time_point> deadline)
      ZR_EXCLUDES(outcomeLock_) {
    ZrLock hold(outcomeLock_);
    const auto came = [this, &name]()
                          ZR_REQUIRES(outcomeLock_) { return outcomes_.contains(name); };
    if (!deadline)
      arrived_.Wait(outcomeLock_, came);
    else if (!arrived_.WaitFor(outcomeLock_, *deadline - steady_clock::now(), came))
      return {nullptr, {ZrSendFailureKind::kTimedOut, kNoAnswerInTime}};
    return std::move(outcomes_.extract(name).mapped());
  }

 private:
  void Keep(const std::string& name, Outcome outcome) ZR_EXCLUDES(outcomeLock_) {
    ZrLock hold(outcomeLock_);
    outcomes_.insert_or_assign(name, std::move(outcome));
    arrived_.NotifyAll();
  }

  ZrMutex outcomeLock_;
  ZrCondition arrived_;  // outcomes_ grew
  std::map<std::string, Outcome> outcomes_ ZR_GUARDED_BY(outcomeLock_);
};

FormFields Fields(const std::vector<std::string>& given) {
  FormFields fields;
  for (const std::string& text : given) {
    const std::size_t mark = text.find('=');
    if (mark == std::string::npos || mark == 0)
      throw UsageError("--post '" + text + "': give it as NAME=VALUE");
    fields.emplace_back(text.substr(0, mark), text.substr(mark + 1));
  }
  return fields;
}

/// Where the bodies go: a file or the standard output. The file keeps its old content, and is not
/// made, until the first answer is there.
class Output {
 public:
  explicit Output(const std::string& path) : path_(path == "-" ? "" : path) {
    if (path_.empty()) return;
    const ZrPathKind kind = PathKind(path_);
    const std::string folder = std::filesystem::path(path_).parent_path().string();
    const bool missing = kind == ZrPathKind::kMissing;
    const int error =
        CheckAccess(missing ? (folder.empty() ? "." : folder) : path_, ZrAccess::kWrite);
    if (error != 0 || kind == ZrPathKind::kDirectory || path_.ends_with('/')) {
      throw std::runtime_error("the file '" + path_ + "' cannot be written: " +
                               (error != 0 ? SystemErrorText(error) : "it is a directory") +
                               "; choose another with --output");
    }
  }
  void Write(std::string_view bytes) {
    if (path_.empty()) {
      const int error = WriteOutput(bytes);
      if (error == 0) return;
      throw std::runtime_error("cannot write to the standard output: " +
                               std::string(SystemErrorText(error)));
    }
    if (!file_.is_open()) file_.open(path_, std::ios::binary | std::ios::trunc);
    file_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file_.flush();
    if (!file_) throw std::runtime_error("cannot write to the file '" + path_ + "'");
  }

 private:
  const std::string path_;
  std::ofstream file_;
};

/// One run of the command.
class Getting {
 public:
  explicit Getting(const GetOptions& options) : options_(options) {}

  int Run() {
    if (!options_.ca.empty() && options_.insecure)
      throw UsageError("--ca and --insecure contradict each other: give one of them");
    if (int error = 0; !options_.ca.empty() && !ReadWholeFile(options_.ca, kMaxPemBytes, &error)) {
      throw std::runtime_error("the certificate file '" + options_.ca + "' " +
                               ReadFailure(error, "16 MiB"));
    }
    fields_ = Fields(options_.post);
    std::vector<RequestUrl> urls;
    for (const std::string& text : options_.urls) urls.push_back(ParseRequestUrl(text));
    Output output(options_.output);
    if (options_.timeout > 0) deadline_ = steady_clock::now() + Limit();
    ZrRinvalScheduler2 scheduler;
    ZrTransceiver transceiver(scheduler, ProtocolServers(OutgoingPools()));
    const auto asker = MakeJob<Asker>();
    transceiver.AddClient(asker);
    try {
      SendAll(*asker, urls, output);
      while (!asked_.empty()) TakeFirst(*asker, output);
    } catch (...) {
      End(transceiver, asker);
      throw;
    }
    End(transceiver, asker);
    return succeeded_ ? kSuccess : kFailure;
  }

 private:
  struct Asked {
    std::string name;
    const std::string* url;  // as the user wrote it
  };

  std::chrono::milliseconds Limit() const {
    return std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(options_.timeout));
  }

  static void End(ZrTransceiver& transceiver, const std::shared_ptr<Asker>& asker) {
    transceiver.StopServers();
    transceiver.RemoveClient(asker);
  }

  std::shared_ptr<ZrXHeader> Request(const RequestUrl& url) const {
    auto head = MakeJob<ZrXHeader>(ZrMessageType::kGet, url.protocolKind);
    head->kind = ZrMessageKind::kRequest;
    head->host = url.host;
    head->port = static_cast<std::uint64_t>(url.port);
    head->path = url.target;
    head->connectOptions.Set("quiet", "yes");
    if (!options_.insecure) head->connectOptions.Set("cacertificate", options_.ca);
    if (deadline_) head->connectOptions.Set("timeout", std::to_string(Limit().count()));
    if (!fields_.empty()) SetFormBody(*head, fields_);
    head->SetState(kHeadStateComplete);
    return head;
  }

  bool TimeIsUp() const { return deadline_ && steady_clock::now() >= *deadline_; }

  // A target that cannot be reached is not tried again for each of the repetitions.
  void SendAll(Asker& asker, const std::vector<RequestUrl>& urls, Output& output) {
    for (std::size_t i = 0; i < urls.size(); ++i) {
      bool reached = true;
      for (int round = 0; round < options_.repeat && reached; ++round) {
        if (asked_.size() == kMostOpen) TakeFirst(asker, output);
        if (TimeIsUp()) {
          Fail(options_.urls[i], {ZrSendFailureKind::kTimedOut, kNoAnswerInTime});
          break;
        }
        const auto head = Request(urls[i]);
        asked_.push_back({head->JobName(), &options_.urls[i]});
        reached = asker.SendMessage(head) == head->JobName();
      }
    }
  }

  void TakeFirst(Asker& asker, Output& output) {
    const Asked one = std::move(asked_.front());
    asked_.pop_front();
    const Outcome outcome = asker.Take(one.name, deadline_);
    if (!outcome.answer) return Fail(*one.url, outcome.failure);
    const ZrXHeader& answer = *outcome.answer;
    if (options_.verbose) {
      std::string line;
      AppendPrintable(line, StatusLine(answer) + " " + *one.url + " (" +
                                std::to_string(answer.body->Size()) + " bytes)");
      WriteErrorText(line + "\n");
    } else if (answer.status >= kFirstErrorStatus) {
      Say(*one.url + ": answered with status " + std::to_string(answer.status));
    }
    succeeded_ = succeeded_ && answer.status < kFirstErrorStatus;
    output.Write(answer.body->Unread());
  }

  static std::string StatusLine(const ZrXHeader& answer) {
    std::string line;
    for (const std::string_view word : answer.headers[kFirstLine])
      line += (line.empty() ? "" : " ") + std::string(word);
    return line;
  }

  void Fail(const std::string& url, const ZrSendFailure& failure) {
    succeeded_ = false;
    std::string text = url + ": " + std::string(SendFailureReason(failure.kind));
    if (!failure.detail.empty()) text += " (" + failure.detail + ")";
    Say(text);
  }

  // The same failure of many repetitions is one line.
  void Say(const std::string& text) {
    if (said_.insert(text).second) PrintError(text);
  }

  const GetOptions options_;
  FormFields fields_;
  std::optional<steady_clock::time_point> deadline_;
  std::deque<Asked> asked_;  // sent and not written, in order
  std::set<std::string> said_;
  bool succeeded_ = true;
};

}  // namespace

void AddGet(CLI::App& program, Run& chosen) {
  const auto options = std::make_shared<GetOptions>();
  CLI::App& get = *program.add_subcommand("get", "Send requests and write the answers");
  get.add_option("URL", options->urls, "http://, https:// or quarn:// addresses")->required();
  get.add_option("--post", options->post, "Send a form with this field; repeatable")
      ->type_name("NAME=VALUE")
      ->allow_extra_args(false);
  get.add_option("--repeat", options->repeat, "Ask for each URL that often, ten at a time")
      ->type_name("N")
      ->check(CLI::Range(1, kMaxRepeat));
  get.add_option("--output", options->output,
                 "Write the bodies there, not to standard output, which is -")
      ->type_name("FILE");
  get.add_flag("--verbose", options->verbose, "One line per answer on standard error");
  get.add_option("--ca", options->ca, "Trust the certificates in this PEM file")->type_name("FILE");
  get.add_flag("--insecure", options->insecure, "Do not verify certificates");
  get.add_option("--timeout", options->timeout, "Give up when not all is answered by then")
      ->type_name("SECONDS")
      ->check(Seconds(0.001, kMaxTimeout));
  get.footer(kExamples);
  get.callback([options, &chosen] { chosen = [options] { return Getting(*options).Run(); }; });
}

}  // namespace zr::cli

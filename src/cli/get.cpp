// velkoro get: sends requests and writes the bodies of their answers, in the order in which they
// were asked for.

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/printable.h"
#include "cli/command.h"
#include "cli/requesturl.h"
#include "platform/filesystem.h"
#include "platform/io.h"
#include "platform/output.h"
#include "velkoro/client.h"

namespace zr::cli {
namespace {

using std::chrono::steady_clock;

constexpr double kMaxTimeout = 86400;
constexpr std::size_t kMaxPemBytes = std::size_t{16} << 20;
constexpr const char* kNoAnswerInTime = "timed out (no answer within --timeout)";
// Without --timeout the limits for silence count alone.
constexpr std::chrono::hours kNoTimeout{24};
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

velkoro::TextPairs Fields(const std::vector<std::string>& given) {
  velkoro::TextPairs fields;
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
    for (const std::string& text : options_.urls) ParseRequestUrl(text);
    Output output(options_.output);
    if (options_.timeout > 0) deadline_ = steady_clock::now() + Limit();
    AskAll(output);
    while (!asked_.empty()) TakeFirst(output);
    return succeeded_ ? kSuccess : kFailure;
  }

 private:
  struct Asked {
    std::future<velkoro::Outcome> coming;
    const std::string* url;  // as the user wrote it
  };

  std::chrono::milliseconds Limit() const {
    return std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(options_.timeout));
  }
  std::chrono::milliseconds Left() const {
    return std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - steady_clock::now());
  }

  // A target that cannot be reached is not tried again for each of the repetitions.
  void AskAll(Output& output) {
    for (const std::string& url : options_.urls) {
      for (int round = 0; round < options_.repeat && !failed_.contains(url); ++round) {
        if (asked_.size() == kMostOpen) TakeFirst(output);
        const std::chrono::milliseconds left = deadline_ ? Left() : kNoTimeout;
        if (left.count() <= 0) {
          Fail(url, kNoAnswerInTime);
          break;
        }
        asked_.push_back({client_.Ask({.url = url,
                                       .fields = fields_,
                                       .timeLimit = left,
                                       .verify = !options_.insecure,
                                       .trusted = options_.ca}),
                          &url});
      }
    }
  }

  void TakeFirst(Output& output) {
    Asked one = std::move(asked_.front());
    asked_.pop_front();
    const velkoro::Outcome outcome = one.coming.get();
    if (outcome.status == 0) return Fail(*one.url, outcome.error);
    const std::string status = std::to_string(outcome.status);
    if (options_.verbose) {
      std::string line;
      AppendPrintable(
          line, status + " " + *one.url + " (" + std::to_string(outcome.body.size()) + " bytes)");
      WriteErrorText(line + "\n");
    } else if (!outcome) {
      Say(*one.url + ": answered with status " + status);
    }
    succeeded_ = succeeded_ && outcome;
    output.Write(outcome.body);
  }

  void Fail(const std::string& url, const std::string& why) {
    succeeded_ = false;
    failed_.insert(url);
    Say(url + ": " + why);
  }

  // The same failure of many repetitions is one line.
  void Say(const std::string& text) {
    if (said_.insert(text).second) PrintError(text);
  }

  const GetOptions options_;
  velkoro::TextPairs fields_;
  std::optional<steady_clock::time_point> deadline_;
  velkoro::Client client_;
  std::deque<Asked> asked_;       // sent and not written, in order
  std::set<std::string> failed_;  // URLs without an answer
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

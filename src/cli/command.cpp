#include "cli/command.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <exception>
#include <optional>
#include <sstream>
#include <utility>

#include "base/line_writer.h"
#include "base/printable.h"
#include "cli/version.h"
#include "platform/filesystem.h"
#include "platform/io.h"
#include "platform/output.h"

namespace zr::cli {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  velkoro serve                     serve the current directory on https://127.0.0.1:8443/\n"
    "  velkoro serve www --open          serve www and show it in the browser\n"
    "  velkoro serve --help              all options of one command";

// A device has no end; and the tree of a document takes many times the room of its text.
constexpr std::size_t kMaxInputBytes = std::size_t{1} << 30;

/// The words that the failing command's help is asked for with.
std::string HelpHint(const CLI::App& program) {
  std::string words = "velkoro";
  for (auto named = program.get_subcommands(); !named.empty();
       named = named.front()->get_subcommands())
    words += " " + named.front()->get_name();
  return words + " --help";
}

}  // namespace

void PrintFault(const std::string& input, const std::string& text) {
  std::string words = input + ": " + text;
  std::replace(words.begin(), words.end(), '\n', ' ');
  std::string line;
  AppendPrintable(line, words);
  FlushLines(std::chrono::seconds(1));  // what the library has said of it stands before
  WriteErrorText(line + "\n");
}

void PrintError(const std::string& text) { PrintFault("velkoro", text); }

int Print(std::string_view text) {
  const int error = WriteOutput(text);
  if (error == 0) return kSuccess;
  PrintError("cannot write to the standard output: " + std::string(SystemErrorText(error)));
  return kFailure;
}

std::string ReadInput(const std::string& file) {
  int error = 0;
  std::optional<std::string> text = ReadToEnd(file, kMaxInputBytes, error);
  if (!text) throw std::runtime_error(ReadFailure(error, "1 GiB"));
  return std::move(*text);
}

std::string ReadFailure(int error, const char* limit) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return "is not there";
    case EACCES:
    case EPERM:
      return "may not be read";
    case EISDIR:
      return "is a directory";
    case EFBIG:
      return std::string("is longer than ") + limit;
    case EINVAL:
      return "is no regular file";
    default:
      return std::string("cannot be read: ") + SystemErrorText(error);
  }
}

CLI::Validator Seconds(double least, double most) {
  const auto check = [least, most](const std::string& text) -> std::string {
    double value = 0;
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = failed == std::errc() && end == text.data() + text.size();
    if (whole && value >= least && value <= most) return {};
    std::ostringstream words;
    words << "'" << text << "' is no number from " << least << " to " << most;
    return std::move(words).str();
  };
  std::ostringstream range;
  range << least << " - " << most;
  return CLI::Validator(check, std::move(range).str());
}

int Main(int count, const char* const* arguments) {
  CLI::App program{"Web server for files, pages and programs, in one process.", "velkoro"};
  program.set_version_flag("--version", "velkoro " VELKORO_VERSION, "Print the version and exit");
  program.set_help_flag("-h,--help", "Print this help and exit");
  program.footer(kExamples);
  program.require_subcommand(0, 1);
  Run chosen;
  AddServe(program, chosen);
  AddStore(program, chosen);
  AddGet(program, chosen);
  AddAnimate(program, chosen);
  AddMarkup(program, chosen);
  try {
    program.parse(count, arguments);
  } catch (const CLI::ParseError& stopped) {
    if (stopped.get_exit_code() == 0) {  // the help or the version was asked for
      std::ostringstream text;
      program.exit(stopped, text, text);
      return Print(std::move(text).str());
    }
    PrintError(std::string(stopped.what()) + "; see " + HelpHint(program));
    return kUsage;
  }
  try {
    if (!chosen) throw UsageError("a command is missing");
    return chosen();
  } catch (const UsageError& wrong) {
    PrintError(std::string(wrong.what()) + "; see " + HelpHint(program));
    return kUsage;
  } catch (const std::exception& failure) {
    PrintError(failure.what());
    return kFailure;
  }
}

}  // namespace zr::cli

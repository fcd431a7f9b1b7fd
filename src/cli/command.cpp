#include "cli/command.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <iostream>

#include "cli/version.h"
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
       named = named.front()->get_subcommands()) {
    words += " " + named.front()->get_name();
  }
  return words + " --help";
}

}  // namespace

void PrintFault(const std::string& input, const std::string& text) {
  std::string line = input + ": " + text;
  std::replace(line.begin(), line.end(), '\n', ' ');
  WriteErrorLine(line);
}

void PrintError(const std::string& text) { PrintFault("velkoro", text); }

int Print(std::string_view text) {
  if (WriteOutput(text)) return kSuccess;
  PrintError("cannot write to the standard output");
  return kFailure;
}

std::string ReadInput(const std::string& file) {
  std::ifstream named;
  if (file != "-") named.open(file, std::ios::binary);
  std::istream& stream = file == "-" ? std::cin : named;
  std::string text;
  char block[64 * 1024];
  while (stream.read(block, sizeof block) || stream.gcount() != 0) {
    text.append(block, static_cast<std::size_t>(stream.gcount()));
    if (text.size() > kMaxInputBytes) throw std::runtime_error("is longer than 1 GiB");
  }
  // A directory opens like a file and fails when it is read.
  if (!stream.eof()) throw std::runtime_error("cannot be read");
  return text;
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
      return program.exit(stopped);
    }
    PrintError(std::string(stopped.what()) + "; see " + HelpHint(program));
    return kUsage;
  }
  try {
    if (!chosen) {
      throw UsageError("a command is missing");
    }
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

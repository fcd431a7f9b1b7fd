#pragma once
// The frame of the subcommands. Each stands in a file of its own, with one function that adds it to
// the program and, when the user asks for it, leaves what is to be run.

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zr::cli {

// The exit statuses of the program.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;  // something went wrong while it ran
inline constexpr int kUsage = 2;    // the arguments make no sense

/// What a subcommand runs once the command line is known to be right; returns the exit status.
/// Exceptions become one line on standard error and kFailure, or kUsage for a UsageError.
using Run = std::function<int()>;

/// Arguments that each are right and together are not.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Each adds a subcommand; `chosen` gets its run when the user names it.
void AddServe(CLI::App& program, Run& chosen);
void AddStore(CLI::App& program, Run& chosen);
void AddGet(CLI::App& program, Run& chosen);
void AddAnimate(CLI::App& program, Run& chosen);
void AddMarkup(CLI::App& program, Run& chosen);

/// One line on standard error, headed by the program's name; line ends within become blanks,
/// other control bytes \xHH. Waits for its reader, as tools do.
void PrintError(const std::string& text);
/// The same for an input that is at fault, headed by its name.
void PrintFault(const std::string& input, const std::string& text);

/// Writes what was asked for to standard output; returns kSuccess, or kFailure after saying that it
/// was lost.
int Print(std::string_view text);

/// The bytes of a file, which may be a pipe, or of the standard input for "-". Throws
/// std::runtime_error with the words of ReadFailure().
std::string ReadInput(const std::string& file);
/// What is wrong with a file whose reading ended with that error of the system, as it follows the
/// file's name: "is not there", "may not be read", "is longer than 1 GiB", ...
std::string ReadFailure(int error, const char* limit);

/// A number of seconds from `least` to `most`, written in decimal: what "nan" says is none.
CLI::Validator Seconds(double least, double most);

/// Runs the program with its arguments; returns its exit status.
int Main(int count, const char* const* arguments);

}  // namespace zr::cli

#pragma once
// The "!" commands of stored texts. A value of the configuration storage may hold a marker such as
// !linearanimation(.lamp,3s,infinite,5,opacity: 1;,opacity: 0;,5); the storage hands it over here
// and puts the answer in its place. The one command there is writes style rules and key frames that
// light a row of elements one after another.
//
// Threads: everything here is free of shared state and may be called from any thread.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

/// What EvaluateCommand answers for every text that is no well-formed command.
inline constexpr std::string_view kCommandError = "/* error */\n";

/// The largest number of elements that one animation lights.
inline constexpr std::size_t kMaxAnimationElements = 10'000;

/// The largest answer in bytes. Long values times many elements would otherwise let a small stored
/// text fill the memory; a command that asks for more gives the error text.
inline constexpr std::size_t kMaxAnimationBytes = std::size_t{64} << 20;

/// Runs the command in `text`, which begins with its "!", and returns what it writes. Every failure
/// gives kCommandError as the whole answer. Linear in the text and in the answer.
/// Throws nothing; not even a lack of memory leaves it.
std::string EvaluateCommand(std::string_view text) noexcept;

/// The same; throws std::exception with what is wrong instead of answering kCommandError.
std::string RunCommand(std::string_view text);

/// Writes the rules and key frames of the command "linearanimation". The arguments, as they stand
/// in the command: selector, duration, repetition, number of elements, declarations of the lit and
/// of the dark state, length of the ramps in percent of the cycle; what follows is not looked at.
/// With at most one element the answer is empty.
/// Throws std::exception when arguments are missing, are no numbers or ask for too much.
std::string LinearAnimation(const std::vector<std::string_view>& arguments);

}  // namespace zr

/// The character classes of the command language, and its reader.
class ZrCommandCompiler {
 public:
  ZrCommandCompiler() = default;
  ZrCommandCompiler(const ZrCommandCompiler&) = delete;
  ZrCommandCompiler& operator=(const ZrCommandCompiler&) = delete;
  virtual ~ZrCommandCompiler() = default;

  /// Splits a command text: first the command's name with its opening bracket, then the arguments
  /// as they stand between the separators, trailing blanks and quotes included. Leading blanks of
  /// an argument are dropped. Returns what was read before the first mistake; an empty list when
  /// there is no name. The views point into `text`.
  std::vector<std::string_view> Parse(std::string_view text) const;

  /// An argument that is enclosed in quotes without them; any other one unchanged.
  std::string_view Unquote(std::string_view argument) const;

 private:
  static constexpr std::string_view kBlanks = " \t\n";
  static constexpr std::string_view kSeparator = ",";
  static constexpr std::string_view kOpen = "(";
  static constexpr std::string_view kClose = ")";
  static constexpr std::string_view kQuotes = "\"'";
  static constexpr std::string_view kIdentifierStart =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
  static constexpr std::string_view kIdentifier =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_1234567890";
  static constexpr std::string_view kMark = "!";
};

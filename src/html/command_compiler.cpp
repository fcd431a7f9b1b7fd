#include "html/command_compiler.h"

#include <stdexcept>

namespace {

constexpr std::string_view kLinearAnimation = "linearanimation(";

bool Contains(std::string_view characters, char ch) {
  return characters.find(ch) != std::string_view::npos;
}

}  // namespace

std::vector<std::string_view> ZrCommandCompiler::Parse(std::string_view text) const {
  std::vector<std::string_view> parts;
  if (text.empty() || !Contains(kMark, text.front())) return parts;
  const std::size_t start = text.find_first_not_of(kBlanks, 1);
  if (start == std::string_view::npos || !Contains(kIdentifierStart, text[start])) return parts;
  const std::size_t open = text.find_first_not_of(kIdentifier, start);
  if (open == std::string_view::npos || !Contains(kOpen, text[open])) return parts;
  parts.push_back(text.substr(start, open + 1 - start));

  std::size_t position = open + 1;
  while (true) {
    position = text.find_first_not_of(kBlanks, position);
    if (position == std::string_view::npos) return parts;
    // The separator and the bracket are single characters, so the first of them ends the argument.
    std::size_t end = position;
    while (end < text.size() && !Contains(kSeparator, text[end]) && !Contains(kClose, text[end]))
      ++end;
    if (end == text.size()) return parts;
    parts.push_back(text.substr(position, end - position));
    if (!Contains(kSeparator, text[end])) return parts;
    position = end + 1;
  }
}

std::string_view ZrCommandCompiler::Unquote(std::string_view argument) const {
  if (argument.empty() || !Contains(kQuotes, argument.front()) ||
      !Contains(kQuotes, argument.back()))
    return argument;
  if (argument.size() == 1) return {};
  return argument.substr(1, argument.size() - 2);
}

std::string zr::RunCommand(std::string_view text) {
  const ZrCommandCompiler compiler;
  std::vector<std::string_view> parts = compiler.Parse(text);
  if (parts.empty() || parts.front() != kLinearAnimation) {
    throw std::invalid_argument("no command; the one there is begins with !" +
                                std::string(kLinearAnimation));
  }
  parts.erase(parts.begin());
  return LinearAnimation(parts);
}

std::string zr::EvaluateCommand(std::string_view text) noexcept {
  try {
    return RunCommand(text);
  } catch (...) {
    // Whatever went wrong, the reader of the stored page sees the error text in its place. It is
    // short enough to need no memory of its own.
  }
  return std::string(kCommandError);
}

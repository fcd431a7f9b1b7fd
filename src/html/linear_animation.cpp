#include <array>
#include <initializer_list>
#include <stdexcept>

#include "base/number.h"
#include "html/command_compiler.h"

namespace {

constexpr std::size_t kArguments = 7;

/// Digits after blanks, trailing text ignored. Unlike the general number reader it takes no sign: a
/// "-1" would become a count of four thousand million.
std::uint32_t Number(std::string_view argument) {
  const std::size_t first = argument.find_first_not_of(" \t\n\v\f\r");
  if (first == std::string_view::npos || argument[first] < '0' || argument[first] > '9')
    throw std::invalid_argument("'" + std::string(argument) + "' is no number");
  return zr::ParseUnsignedLong(argument.substr(first));
}

struct Frame {
  double percent;
  bool lit;
};
using Frames = std::array<Frame, 6>;

/// The frames of element `index` of `count`; the first element has five of them.
std::pair<Frames, std::size_t> FramesOf(std::size_t index, std::size_t count, double ramp) {
  const double step = 100.0 / static_cast<double>(count);
  if (index == 0)
    return {{{{0, true}, {step - ramp, true}, {step, false}, {100 - ramp, false}, {100, true}}}, 5};
  const double begin = static_cast<double>(index) * step;
  if (index == count - 1) {
    return {{{{0, false}, {begin - ramp, false}, {begin, true}, {100 - ramp, true}, {100, false}}},
            5};
  }
  const double end = static_cast<double>(index + 1) * step;
  return {{{{0, false},
            {begin - ramp, false},
            {begin, true},
            {end - ramp, true},
            {end, false},
            {100, false}}},
          6};
}

/// A text that refuses to grow beyond the limit of an answer.
class BoundedText {
 public:
  void Append(std::initializer_list<std::string_view> pieces) {
    for (const std::string_view piece : pieces) {
      if (piece.size() > zr::kMaxAnimationBytes - text_.size())
        throw std::length_error("the animation is too long");
      text_ += piece;
    }
  }
  std::string Take() { return std::move(text_); }

 private:
  std::string text_;
};

}  // namespace

std::string zr::LinearAnimation(const std::vector<std::string_view>& arguments) {
  if (arguments.size() < kArguments) {
    throw std::invalid_argument("the command needs " + std::to_string(kArguments) +
                                " arguments, and " + std::to_string(arguments.size()) +
                                " can be read");
  }
  const ZrCommandCompiler compiler;
  const std::string_view selector = compiler.Unquote(arguments[0]);
  const std::string_view duration = compiler.Unquote(arguments[1]);
  const std::string_view repetition = compiler.Unquote(arguments[2]);
  const std::size_t count = Number(arguments[3]);
  const std::string_view on = compiler.Unquote(arguments[4]);
  const std::string_view off = compiler.Unquote(arguments[5]);
  const double ramp = Number(arguments[6]);
  if (count > kMaxAnimationElements)
    throw std::out_of_range("more than " + std::to_string(kMaxAnimationElements) + " elements");
  if (count <= 1) return {};

  std::string_view base = selector;
  if (!base.empty() && (base.front() == '.' || base.front() == '#')) base.remove_prefix(1);
  BoundedText text;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string index = std::to_string(i);
    text.Append({selector, index, " {\n"});
    for (const std::string_view property : {"  -webkit-animation: ", "  animation: "})
      text.Append({property, base, index, " ", duration, " ", repetition, ";\n"});
    text.Append({"}\n\n"});
    const auto frames = FramesOf(i, count, ramp);
    for (const std::string_view keyword : {"-webkit-keyframes", "keyframes"}) {
      text.Append({"@", keyword, " ", base, index, " {\n"});
      for (std::size_t f = 0; f < frames.second; ++f) {
        const Frame& frame = frames.first[f];
        text.Append({FormatGeneral(frame.percent), "% {\n  ", frame.lit ? on : off, "\n}\n"});
      }
      text.Append({"}\n\n"});
    }
  }
  return text.Take();
}

// velkoro animate: what the animation command of stored pages writes.

#include <memory>
#include <string>

#include "cli/command.h"
#include "html/command_compiler.h"

namespace zr::cli {
namespace {

constexpr const char* kExample =
    "Example:\n"
    "  velkoro animate '!linearanimation(.lamp, 3s, infinite, 3, opacity: 1;, opacity: 0;, 5)'\n"
    "lights .lamp0, .lamp1 and .lamp2 in turn. The arguments are the selector, the duration, the\n"
    "repetition, the number of elements, the declarations of the lit and of the dark state, and "
    "the\n"
    "ramps in percent. A malformed command writes nothing and ends with status 1.";

}  // namespace

void AddAnimate(CLI::App& program, Run& chosen) {
  const auto text = std::make_shared<std::string>();
  CLI::App& animate =
      *program.add_subcommand("animate", "Write the style rules of an animation command");
  animate.add_option("TEXT", *text, "The command, with its leading \"!\"")->required();
  animate.footer(kExample);
  animate.callback([text, &chosen] { chosen = [text] { return Print(RunCommand(*text)); }; });
}

}  // namespace zr::cli

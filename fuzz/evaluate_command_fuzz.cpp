// Command texts of stored values: the answer is bounded, and text behind a command that was
// understood changes nothing.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "html/command_compiler.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string answer = zr::EvaluateCommand(text);
  ZR_FUZZ_CHECK(answer.size() <= zr::kMaxAnimationBytes);
  const bool understood = answer != zr::kCommandError;
  ZR_FUZZ_CHECK(!understood || text.starts_with('!'));
  ZR_FUZZ_CHECK(!understood || zr::EvaluateCommand(text + ",)") == answer);
  return 0;
}

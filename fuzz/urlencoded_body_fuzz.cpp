// Fields that were decoded, encoded and decoded again are the same fields.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/form_request.h"

namespace {

std::string Encode(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    result += '%';
    result += kDigits[byte / 16];
    result += kDigits[byte % 16];
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::string_view kType = "application/x-www-form-urlencoded";
  const auto first = DecodeForm(kType, {reinterpret_cast<const char*>(data), size});
  std::string encoded;
  for (const auto& block : first->blocks)
    encoded += "&" + Encode(block->Name()) + "=" + Encode(block->Text());
  const auto second = DecodeForm(kType, encoded);
  ZR_FUZZ_CHECK(first->blocks.size() == second->blocks.size());
  for (std::size_t i = 0; i < first->blocks.size(); ++i) {
    ZR_FUZZ_CHECK(first->blocks[i]->Name() == second->blocks[i]->Name());
    ZR_FUZZ_CHECK(first->blocks[i]->Text() == second->blocks[i]->Text());
  }
  return 0;
}

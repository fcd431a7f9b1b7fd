// A multipart body has the parts that a plain search for its delimiter finds, and their contents
// lie in it in their order. The input's first line is the boundary, the rest the body.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/form_request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t lineEnd = std::min(input.find('\n'), input.size());
  const std::string boundary(input.substr(0, lineEnd));
  const std::string_view body = input.substr(std::min(lineEnd + 1, input.size()));
  const auto request = DecodeForm("multipart/form-data;boundary=" + boundary, body);

  const std::string delimiter = "--" + boundary;
  std::size_t start = body.find(delimiter);
  for (const auto& block : request->blocks) {
    start += delimiter.size();
    const std::size_t end = body.find(delimiter, start);
    ZR_FUZZ_CHECK(end != std::string_view::npos);
    ZR_FUZZ_CHECK(!block->content || !block->Text().empty());
    ZR_FUZZ_CHECK(body.substr(start, end - start).find(block->Text()) != std::string_view::npos);
    start = end;
  }
  const bool more = start != std::string_view::npos &&
                    body.find(delimiter, start + delimiter.size()) != std::string_view::npos;
  ZR_FUZZ_CHECK(!more || request->blocks.size() == zr::kMaxFormFields);
  return 0;
}

#include "http/program_head.h"

#include "base/number.h"
#include "http/field_list.h"
#include "http/field_syntax.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";

bool IsField(std::string_view line) {
  const std::size_t colon = line.find(':');
  return colon != std::string_view::npos && zr::IsToken(line.substr(0, colon)) &&
         zr::IsFieldValue(line.substr(colon + 1));
}

bool MovesTheEnd(std::string_view line, std::uint64_t pageSize) {
  const std::string_view name = line.substr(0, line.find(':'));
  if (zr::EqualsIgnoringCase(name, "transfer-encoding")) return true;
  return zr::EqualsIgnoringCase(name, "content-length") &&
         zr::ParseDigits(zr::TrimBlanks(line.substr(name.size() + 1))) != pageSize;
}

}  // namespace

std::size_t zr::ProgramHeadSize(std::string_view output) {
  for (std::size_t start = 0;;) {
    const std::size_t end = output.find('\n', start);
    if (end == std::string_view::npos || end == start || output[end - 1] != '\r') return 0;
    const std::string_view line = output.substr(start, end - 1 - start);
    start = end + 1;
    if (line.empty()) return start;
    if (!IsField(line)) return 0;
  }
}

void zr::AppendProgramHead(ZrStringBuf& out, std::string_view head, std::uint64_t pageSize) {
  while (!head.empty()) {
    const std::string_view line = head.substr(0, head.find(kLineEnd));
    if (line.empty() || !MovesTheEnd(line, pageSize)) {
      out.Append(line);
      out.Append(kLineEnd);
    }
    head.remove_prefix(line.size() + kLineEnd.size());
  }
}

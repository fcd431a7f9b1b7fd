#pragma once
// The head lines that a program writes in front of its page.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/string_buffer.h"

namespace zr {

/// The bytes of the head at the front of a program's output, its empty line included; 0 when there
/// is none. A head is made of fields, "name: value", each line ended by CR LF; whatever has another
/// line in front of its first empty one is page as a whole. An empty line at once is a head.
std::size_t ProgramHeadSize(std::string_view output);

/// Writes such a head for a page of that many bytes. Fields that give the page another end than the
/// server's own "Content-Length" are left out.
void AppendProgramHead(ZrStringBuf& out, std::string_view head, std::uint64_t pageSize);

}  // namespace zr

#include "markup/write.h"

#include <streambuf>

#include "base/exception.h"

namespace zr {

void Put(std::ostream& stream, std::string_view text) {
  // Straight to the buffer: a stream's own write() costs more than the few bytes of most nodes.
  if (!stream.good()) return;
  bool taken = false;
  try {
    const auto size = static_cast<std::streamsize>(text.size());
    taken = stream.rdbuf()->sputn(text.data(), size) == size;
  } catch (...) {
    // A buffer that throws counts as one that takes nothing, as for every output of a stream.
  }
  if (!taken) stream.setstate(std::ios_base::badbit);
}

constinit thread_local unsigned WriteCall::depth = 0;

WriteCall::WriteCall(unsigned limit) {
  if (depth == limit) throw ZrException("elements nested too deeply to be written", 643, "src");
  ++depth;
}

}  // namespace zr

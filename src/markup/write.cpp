#include "markup/write.h"

#include <streambuf>

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

}  // namespace zr

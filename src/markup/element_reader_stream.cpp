#include "markup/element_reader_stream.h"

#include <string>

std::size_t ZrDTDElementReaderStream::ReadBlock(char* to, std::size_t room) {
  static_assert(std::char_traits<char>::eof() == -1);
  if (!stream_.good() || stream_.peek() < 0) return 0;
  const std::streamsize count = stream_.readsome(to, static_cast<std::streamsize>(room));
  if (count > 0) return static_cast<std::size_t>(count);
  // A buffer that holds a byte without showing it.
  const int byte = stream_.get();
  if (byte < 0) return 0;
  *to = static_cast<char>(byte);
  return 1;
}

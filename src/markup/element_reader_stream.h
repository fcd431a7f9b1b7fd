#pragma once

#include <cstddef>
#include <istream>
#include <span>

#include "markup/element_reader.h"

/// A reader on a standard input stream, which outlives it. It takes the bytes that the stream's
/// buffer has at hand in one piece, so the stream stands further on than the last token read; a
/// stream that delivers byte by byte, a terminal or a pipe, is read no further than needed.
class ZrDTDElementReaderStream : public ZrDTDElementReader {
 public:
  explicit ZrDTDElementReaderStream(std::istream& stream,
                                    std::span<const ZrDTDDefinition> furtherKinds = {})
      : ZrDTDElementReader(furtherKinds), stream_(stream) {}

  bool AtEnd() override { return stream_.eof(); }
  bool Good() override { return stream_.good(); }
  int PeekChar() override { return stream_.peek(); }
  int GetChar() override { return stream_.get(); }
  std::size_t ReadBlock(char* to, std::size_t room) override;

 private:
  std::istream& stream_;
};

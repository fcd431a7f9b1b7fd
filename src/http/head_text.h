#pragma once
// Pieces of a message head that is being written.

#include <cstdint>
#include <string>
#include <string_view>

#include "base/string_buffer.h"
#include "base/text_cursor.h"

namespace zr {

/// Writes a head into space that is made for all of it, at most that many bytes. The buffer has
/// them when this object goes; until then nobody else uses it.
class HeadText : public TextCursor {
 public:
  HeadText(ZrStringBuf& out, std::size_t most)
      : TextCursor(out.Prepare(most).data()), out_(out), start_(End()) {}
  HeadText(const HeadText&) = delete;
  HeadText& operator=(const HeadText&) = delete;
  ~HeadText() { out_.Commit(static_cast<std::size_t>(End() - start_)); }

  /// A line of a field, its name as heads are used to be written.
  void AddField(std::string_view name, std::string_view value);
  /// The text without its bytes CR and LF.
  void AddWithoutLineEnds(std::string_view text);

 private:
  ZrStringBuf& out_;
  char* const start_;
};

/// The text without its bytes CR and LF: what a handler set cannot begin a line of its own.
void AppendText(ZrStringBuf& out, std::string_view text);
std::string WithoutLineEnds(std::string_view text);
/// The number in decimal.
void AppendNumber(ZrStringBuf& out, std::uint64_t number);

}  // namespace zr

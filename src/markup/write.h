#pragma once
// How nodes put text on a stream: as it is, whatever the stream's width, fill and locale are.

#include <ostream>
#include <string_view>

namespace zr {

/// Writes the bytes; a stream that takes fewer gets its bad bit. Nothing on a stream that is not
/// good.
void Put(std::ostream& stream, std::string_view text);

/// Gathers the pieces of a tag, so that a tag is one write to the stream. Give it all pieces, then
/// call Flush().
class TagWriter {
 public:
  explicit TagWriter(std::ostream& stream) : stream_(stream) {}
  TagWriter& operator<<(std::string_view text) {
    if (text.size() > sizeof buffer_ - used_) return PutLong(text);
    text.copy(buffer_ + used_, text.size());
    used_ += text.size();
    return *this;
  }
  TagWriter& operator<<(char c) { return *this << std::string_view(&c, 1); }
  void Flush() {
    if (used_ != 0) Put(stream_, std::string_view(buffer_, used_));
    used_ = 0;
  }

 private:
  TagWriter& PutLong(std::string_view text) {
    Flush();
    Put(stream_, text);
    return *this;
  }

  std::ostream& stream_;
  std::size_t used_ = 0;
  char buffer_[256];
};

/// Counts the calls of Write() of this thread that stand in each other.
class WriteCall {
 public:
  /// Throws ZrException "elements nested too deeply to be written" for one more than the limit.
  explicit WriteCall(unsigned limit);
  WriteCall(const WriteCall&) = delete;
  WriteCall& operator=(const WriteCall&) = delete;
  ~WriteCall() { --depth; }

 private:
  static thread_local constinit unsigned depth;
};

}  // namespace zr

#include "storage/marker_expansion.h"

#include <algorithm>

namespace zr {

namespace {

// The text still to be scanned, growing at its front.
class Remainder {
 public:
  explicit Remainder(std::string_view text) : buffer_(text) {}

  std::string_view View() const { return std::string_view(buffer_).substr(start_); }
  void Drop(std::size_t bytes) { start_ += bytes; }
  void PutInFront(std::string_view bytes) {
    if (bytes.size() > start_) {
      // As much space again as there is text: the next move is paid for by what fills it.
      const std::size_t space = bytes.size() + std::max<std::size_t>(View().size(), 64);
      std::string larger(space, '\0');
      larger += View();
      buffer_ = std::move(larger);
      start_ = space;
    }
    start_ -= bytes.size();
    std::copy(bytes.begin(), bytes.end(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
  }

 private:
  std::string buffer_;
  std::size_t start_ = 0;
};

}  // namespace

bool ExpandMarkers(std::string& text, const MarkerLookup& lookup) {
  std::string done;
  Remainder rest(text);
  std::size_t replacements = 0;
  std::size_t inserted = 0;
  bool complete = true;
  for (;;) {
    const std::string_view view = rest.View();
    const std::size_t open = view.find("[[");
    const std::size_t close = open == view.npos ? view.npos : view.find("]]", open + 2);
    if (close == view.npos) break;
    if (replacements == kMaxMarkerReplacements) {
      complete = false;
      break;
    }
    const std::string replacement = lookup(view.substr(open + 2, close - open - 2));
    if (replacement.size() > kMaxMarkerBytes - inserted) {
      complete = false;
      break;
    }
    ++replacements;
    inserted += replacement.size();
    done += view.substr(0, open);
    rest.Drop(close + 2);
    rest.PutInFront(replacement);
  }
  done += rest.View();
  text = std::move(done);
  return complete;
}

}  // namespace zr

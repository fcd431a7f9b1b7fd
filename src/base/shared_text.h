#pragma once
// A constant text that many hold, such as a name that all messages of a connection carry: a copy of
// it is a count.

#include <memory>
#include <string>
#include <string_view>
#include <utility>

/// Empty from the start. It is made of a text and read as one without a word, as it stands where
/// texts stood. Threads: as a std::shared_ptr.
class ZrSharedText {
 public:
  ZrSharedText() = default;
  ZrSharedText(std::string text)
      : text_(text.empty() ? nullptr : std::make_shared<const std::string>(std::move(text))) {}
  ZrSharedText(const char* text) : ZrSharedText(std::string(text)) {}

  const std::string& Text() const {
    static const std::string kNone;
    return text_ ? *text_ : kNone;
  }
  operator const std::string&() const { return Text(); }
  operator std::string_view() const { return Text(); }
  bool empty() const { return text_ == nullptr; }
  bool operator==(const ZrSharedText& other) const { return Text() == other.Text(); }
  bool operator==(std::string_view other) const { return Text() == other; }

 private:
  std::shared_ptr<const std::string> text_;
};

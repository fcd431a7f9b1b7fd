#pragma once
// Names of elements and attributes. A document repeats a few names thousands of times, so a name is
// a counted reference to one immutable text: nodes made from the same ZrName share it, and whoever
// passes a plain string gets a text of its own. The count is atomic: two trees that share names may
// live on two threads. Names that a parse found are not counted: they stay as long as its nodes.

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "markup/node_memory.h"

namespace zr {

/// The shared text behind a ZrName. Only ZrName and its helpers touch the count.
struct NameText {
  /// Marks a text that is not counted, as it outlives all that bear it: one that is never freed,
  /// or one that a parse keeps with the memory of its nodes.
  static constexpr std::uint32_t kPermanent = 0x80000000u;
  static constexpr std::uint32_t kOfParse = 0x40000000u;  // beside kPermanent

  std::atomic<std::uint32_t> references;
  const std::string text;
  NameText* next = nullptr;  // of those kept with one parse
};

class PlainReader;

}  // namespace zr

class ZrName;

/// A name as an argument: converts from every kind of text and borrows it for the call. Made from a
/// ZrName it carries the shared text along, so that the receiver can keep it without a copy. Small
/// enough to travel in two registers.
class ZrNameView {
 public:
  // Implicit on purpose: callers pass whatever text they have.
  ZrNameView(const char* text) : ZrNameView(std::string_view(text)) {}
  ZrNameView(const std::string& text) : ZrNameView(std::string_view(text)) {}
  ZrNameView(std::string_view text) : text_(text.data()), size_(text.size()) {}
  inline ZrNameView(const ZrName& name);

  std::string_view text() const {
    return size_ == kShared ? std::string_view(shared_->text) : std::string_view(text_, size_);
  }
  bool empty() const { return size_ == 0; }

 private:
  friend class ZrName;
  friend class ZrPermanentName;
  friend class ZrNameTable;
  static constexpr std::size_t kShared = static_cast<std::size_t>(-1);
  explicit ZrNameView(zr::NameText* shared)
      : shared_(shared), size_(shared != nullptr ? kShared : 0) {}

  union {
    const char* text_;
    zr::NameText* shared_;  // with size_ kShared
  };
  std::size_t size_;
};

/// A shared, immutable byte string the size of a pointer. Copying never allocates. The empty name
/// is represented by no text at all.
class ZrName {
 public:
  ZrName() = default;
  /// Shares the text that the view carries, or copies the text it borrows.
  explicit ZrName(ZrNameView name) : shared_(Share(name)) {}
  ZrName(const ZrName& other) noexcept : shared_(other.shared_) { Hold(shared_); }
  ZrName(ZrName&& other) noexcept : shared_(std::exchange(other.shared_, nullptr)) {}
  ZrName& operator=(ZrName other) noexcept {
    std::swap(shared_, other.shared_);
    return *this;
  }
  ~ZrName() { Drop(shared_); }

  /// The text; lives at least as long as this name.
  const std::string& str() const noexcept { return shared_ != nullptr ? shared_->text : Empty(); }
  bool empty() const noexcept { return shared_ == nullptr; }

  friend bool operator==(const ZrName& a, const ZrName& b) noexcept {
    return a.shared_ == b.shared_ || a.str() == b.str();
  }
  friend bool operator==(const ZrName& a, std::string_view b) noexcept { return a.str() == b; }

 private:
  friend class ZrNameView;
  friend class ZrElementExtras;
  friend class ZrXMLComplexElement;
  friend class ZrAttributeMap;
  friend class zr::PlainReader;

  static const std::string& Empty() noexcept;
  static zr::NameText* Share(ZrNameView name) {
    if (name.size_ != ZrNameView::kShared) return Copy(name.text());
    const std::uint32_t references = name.shared_->references.load(std::memory_order_relaxed);
    // Only what is made in the course of the parse lies in its memory.
    if ((references & zr::NameText::kOfParse) != 0 && !zr::NodePool::IsOpen())
      return Copy(name.text());
    Hold(name.shared_);
    return name.shared_;
  }
  static zr::NameText* Copy(std::string_view text);
  static void Hold(zr::NameText* shared) noexcept {
    if (shared != nullptr &&
        (shared->references.load(std::memory_order_relaxed) & zr::NameText::kPermanent) == 0)
      shared->references.fetch_add(1, std::memory_order_relaxed);
  }
  static void Drop(zr::NameText* shared) noexcept {
    if (shared != nullptr &&
        (shared->references.load(std::memory_order_relaxed) & zr::NameText::kPermanent) == 0 &&
        shared->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete shared;
  }

  // A name that is not counted.
  struct Uncounted {};
  ZrName(zr::NameText& name, Uncounted) noexcept : shared_(&name) {}

  zr::NameText* shared_ = nullptr;
};

inline ZrNameView::ZrNameView(const ZrName& name) : ZrNameView(name.shared_) {}

/// A name known to the program, for static storage: never counted and never freed, so nodes that
/// outlive the program's other statics keep it. Up to 15 bytes take no memory of their own.
class ZrPermanentName {
 public:
  explicit ZrPermanentName(const char* text)
      : text_{{zr::NameText::kPermanent}, std::string(text)} {}
  ZrPermanentName(const ZrPermanentName&) = delete;
  ZrPermanentName& operator=(const ZrPermanentName&) = delete;
  ~ZrPermanentName() {}  // leaves the text in place on purpose

  operator ZrNameView() const { return ZrNameView(&text_); }  // implicit on purpose
  zr::NameText& text() const { return text_; }

 private:
  union {
    mutable zr::NameText text_;
  };
};

/// Hands out one shared name for each distinct text, which lives as long as the nodes of the parse
/// and is not counted. Not locked; belongs to one reader.
class ZrNameTable {
 public:
  /// The pool of the nodes that bear the names outlives the table.
  explicit ZrNameTable(zr::NodePool& pool) : pool_(pool) {}

  /// The name for the text, entered when it is new; good as long as the pool, and beyond it for
  /// what is made in the course of its parse. Texts chosen to collide cannot slow it down: a text
  /// that finds no free place near its own gets a name of its own each time.
  ZrNameView Intern(std::string_view text) {
    return text.empty() ? ZrNameView(text) : ZrNameView(&InternText(text));
  }
  /// The same for a text that is not empty.
  zr::NameText& InternText(std::string_view text);
  /// The same for one of up to 16 bytes that are no zeros, given as two words with zeros behind
  /// them.
  zr::NameText& InternShort(std::uint64_t first, std::uint64_t second, std::string_view text) {
    const std::uint64_t hash = (first ^ second * 0xff51afd7ed558ccdu) * 0x9e3779b97f4a7c15u;
    Short& place = shorts_[hash >> 58];
    if (place.first != first || place.second != second) [[unlikely]]
      place = {first, second, &InternText(text)};
    return *place.name;
  }

 private:
  // The short name seen last of those with one hash.
  struct Short {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    zr::NameText* name = nullptr;
  };
  struct Slot {
    std::size_t hash = 0;
    zr::NameText* name = nullptr;
  };
  static constexpr std::size_t kLongestProbe = 16;

  zr::NameText* Make(std::string_view text);
  void Grow();

  zr::NodePool& pool_;
  std::array<Short, 64> shorts_;
  std::vector<Slot> slots_;  // power-of-two size, linear probing
  std::size_t used_ = 0;
};

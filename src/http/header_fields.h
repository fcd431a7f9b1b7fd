#pragma once
// The fields of a message head: an ordered map from field name to the list of its values. A request
// builds one and its answer keeps a copy for the access log, so both are made cheap: all texts lie
// in one piece of memory with a small sorted table over them, and copies share both until one of
// them changes. Ten fields cost three allocations.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/byte_words.h"
#include "base/string_buffer.h"
#include "base/workbench.h"

/// Field name -> values in arrival order, names ordered byte-wise. Names are stored as given; the
/// head reader gives lower case. All views stay valid until this object changes or goes, also
/// while copies of it change. Threads: any number of readers and copiers, or one writer.
class ZrHeaderFields {
  /// A field's name with its first bytes as a number, which sorts and differs as they do: names are
  /// seldom compared byte by byte.
  struct Name {
    explicit Name(std::string_view name)
        : text(name), start(__builtin_bswap64(zr::FirstWord(name))) {}
    Name(std::string_view name, std::uint64_t startOfName) : text(name), start(startOfName) {}
    bool operator==(const Name& other) const {
      return start == other.start && text.size() == other.text.size() &&
             (text.size() <= sizeof start || text == other.text);
    }
    bool operator<(const Name& other) const {
      if (start != other.start) return start < other.start;
      const bool whole = text.size() <= sizeof start && other.text.size() <= sizeof start;
      return whole ? text.size() < other.text.size() : text < other.text;
    }
    std::string_view text;
    std::uint64_t start;
  };
  struct Line {
    std::uint64_t start;  // of the name
    std::uint32_t nameAt, nameSize, valueAt, valueSize;
  };
  struct Store {
    ZrStringBuf text;
    std::vector<Line, ZrWorkbenchAllocator<Line>>
        lines;                // by name, values of one name in arrival order
    std::uint64_t names = 0;  // a bit for each that may be there
    const char* Text() const { return text.Unread().data(); }
    Name NameOf(const Line& line) const {
      return {{Text() + line.nameAt, line.nameSize}, line.start};
    }
    void Enter(const Name& name, std::size_t valueAt, std::size_t valueSize);
    std::size_t LowerBound(const Name& name) const;
  };
  static std::uint64_t BitOf(const Name& name) {
    const std::uint64_t mixed = (name.start ^ name.text.size()) * 0x9E3779B97F4A7C15u;
    return std::uint64_t{1} << (mixed >> 58);
  }

 public:
  /// The values of one name; a view like any other of this class.
  class Values {
   public:
    class const_iterator {
     public:
      using iterator_category = std::forward_iterator_tag;
      using value_type = std::string_view;
      using difference_type = std::ptrdiff_t;
      using pointer = void;
      using reference = std::string_view;
      const_iterator() = default;
      std::string_view operator*() const { return (*values_)[index_]; }
      const_iterator& operator++() {
        ++index_;
        return *this;
      }
      const_iterator operator++(int) { return {values_, index_++}; }
      bool operator==(const const_iterator& other) const { return index_ == other.index_; }

     private:
      friend class Values;
      const_iterator(const Values* values, std::size_t index) : values_(values), index_(index) {}
      const Values* values_ = nullptr;
      std::size_t index_ = 0;
    };

    Values() = default;
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    /// The value at that place, which must exist.
    std::string_view operator[](std::size_t index) const {
      const Line& line = lines_[index];
      return {text_ + line.valueAt, line.valueSize};
    }
    std::string_view front() const { return (*this)[0]; }
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, count_}; }

   private:
    friend class ZrHeaderFields;
    Values(const char* text, const Line* lines, std::size_t count)
        : text_(text), lines_(lines), count_(count) {}
    const char* text_ = nullptr;
    const Line* lines_ = nullptr;
    std::size_t count_ = 0;
  };

  /// One name with its values, as an ordered map shows it.
  struct Entry {
    std::string_view first;
    Values second;
  };

  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using reference = Entry;
    struct pointer {
      Entry entry;
      const Entry* operator->() const { return &entry; }
    };
    const_iterator() = default;
    Entry operator*() const;
    pointer operator->() const { return {**this}; }
    const_iterator& operator++();
    bool operator==(const const_iterator& other) const { return index_ == other.index_; }

   private:
    friend class ZrHeaderFields;
    const_iterator(const Store* store, std::size_t index) : store_(store), index_(index) {}
    std::size_t GroupEnd() const;
    const Store* store_ = nullptr;
    std::size_t index_ = 0;  // the first line of the name
  };

  ZrHeaderFields() = default;
  ZrHeaderFields(const ZrHeaderFields& other) noexcept;
  ZrHeaderFields& operator=(const ZrHeaderFields& other) noexcept;
  ZrHeaderFields(ZrHeaderFields&& other) noexcept;
  ZrHeaderFields& operator=(ZrHeaderFields&& other) noexcept;
  ~ZrHeaderFields() = default;

  /// Adds a value at the end of the name's list. Throws std::length_error beyond 4 GiB of text.
  void Append(std::string_view name, std::string_view value);
  /// Several values of one name, which are none of this object's own.
  void Append(std::string_view name, std::span<const std::string_view> values);
  /// The same in place: gives space for so many bytes, into which the name is written and its value
  /// behind it; Enter() then adds them. Nothing else happens to the fields between the two.
  char* Space(std::size_t bytes);
  void Enter(std::size_t nameSize, std::size_t valueSize);
  /// Makes room for that many bytes of names and values in that many lines.
  void Reserve(std::size_t bytes, std::size_t lines);

  /// The entry of the name, end() when there is none.
  const_iterator find(std::string_view name) const {
    const std::size_t place = Find(name);
    return place == kNowhere ? end() : const_iterator(store_.get(), place);
  }
  bool contains(std::string_view name) const { return Find(name) != kNowhere; }
  /// Whether there is a name that begins so.
  bool ContainsPrefix(std::string_view prefix) const;
  /// The values of the name; an empty list when there are none.
  Values operator[](std::string_view name) const {
    const std::size_t place = Find(name);
    return place == kNowhere ? Values() : ValuesAt(place);
  }
  /// The first value of the name, or the default when there is none.
  std::string_view First(std::string_view name, std::string_view defaultValue = {}) const {
    const Values values = (*this)[name];
    return values.empty() ? defaultValue : values.front();
  }

  const_iterator begin() const { return {store_.get(), 0}; }
  const_iterator end() const { return {store_.get(), store_ ? store_->lines.size() : 0}; }
  bool empty() const { return begin() == end(); }

 private:
  static constexpr std::size_t kNowhere = std::string_view::npos;
  Store& Writable();
  // Most names that are asked for are not there, which their bit tells.
  std::size_t Find(std::string_view name) const {
    const Name wanted(name);
    return store_ && (store_->names & BitOf(wanted)) != 0 ? FindLine(wanted) : kNowhere;
  }
  std::size_t FindLine(const Name& name) const;
  Values ValuesAt(std::size_t place) const;

  std::shared_ptr<Store> store_;  // empty before the first field
  // Set for good once a copy exists: the next change takes a store of its own. The use count alone
  // would not order the last read of a copy on another thread before our write.
  mutable std::atomic<bool> shared_ = false;
};

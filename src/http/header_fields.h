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
#include <string>
#include <string_view>
#include <vector>

#include "base/workbench.h"

/// Field name -> values in arrival order, names ordered byte-wise. Names are stored as given; the
/// head reader gives lower case. All views stay valid until this object changes or goes, also
/// while copies of it change. Threads: any number of readers and copiers, or one writer.
class ZrHeaderFields {
  struct Line {
    std::uint32_t nameStart, nameSize, valueStart, valueSize;
  };
  struct Store {
    std::basic_string<char, std::char_traits<char>, ZrWorkbenchAllocator<char>> text;
    std::vector<Line, ZrWorkbenchAllocator<Line>>
        lines;  // by name, values of one name in arrival order
    std::string_view Name(const Line& line) const {
      return {text.data() + line.nameStart, line.nameSize};
    }
    std::size_t LowerBound(std::string_view name) const;
  };

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
      return {text_ + line.valueStart, line.valueSize};
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
  /// Makes room for that many bytes of names and values in that many lines.
  void Reserve(std::size_t bytes, std::size_t lines);

  /// The entry of the name, end() when there is none.
  const_iterator find(std::string_view name) const;
  bool contains(std::string_view name) const { return find(name) != end(); }
  /// Whether there is a name that begins so.
  bool ContainsPrefix(std::string_view prefix) const;
  /// The values of the name; an empty list when there are none.
  Values operator[](std::string_view name) const;
  /// The first value of the name, or the default when there is none.
  std::string_view First(std::string_view name, std::string_view defaultValue = {}) const;

  const_iterator begin() const { return {store_.get(), 0}; }
  const_iterator end() const { return {store_.get(), store_ ? store_->lines.size() : 0}; }
  bool empty() const { return begin() == end(); }

 private:
  Store& Writable();

  std::shared_ptr<Store> store_;  // empty before the first field
  // Set for good once a copy exists: the next change takes a store of its own. The use count alone
  // would not order the last read of a copy on another thread before our write.
  mutable std::atomic<bool> shared_ = false;
};

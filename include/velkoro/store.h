#pragma once
// A small store of settings in a file that people can read and edit.
//
//   velkoro::Store store("settings.xml");
//   int port = store.Get("server.port", 8080);
//   store.Set("window.title", "My program");
//   store.Save();
//
// The file is an XML document: "server.port" is the attribute "port" of the element "server" in the
// root, "title" an attribute of the root itself. What else stands in the file (comments, layout,
// further elements) is kept.
//
// Errors are StoreError. Threads: any, but for construction and destruction. One store for a file:
// what another one, or an editor, writes meanwhile is lost with the next Save().

#include <charconv>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

namespace velkoro {

/// What went wrong, as one sentence: "settings.xml: Permission denied".
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Store {
 public:
  /// Reads the file; one that is not there is an empty store, and Save() makes it. A file that is
  /// no XML document is copied to PATH.unreadable (or PATH.unreadable.2 and so on; Backup() says
  /// where), and the store is empty: nothing is lost when Save() replaces it. Throws when there is
  /// a file that cannot be opened or copied.
  explicit Store(std::string path);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  /// Does not save.
  ~Store();

  const std::string& Path() const { return path_; }
  /// Where the content is that could not be read, and why it could not; empty when it could.
  const std::string& Backup() const { return backup_; }
  const std::string& BackupReason() const { return backupReason_; }

  /// The value; nothing when there is none. Every operation throws for a path that is not made of
  /// names with "." between them, and for one of more than 100 names.
  std::optional<std::string> Find(std::string_view path) const;
  /// The value as text, whenAbsent when there is none.
  std::string Get(std::string_view path, std::string_view whenAbsent) const;
  /// The value as a number or a truth value ("true", "yes", "on", "1" and "false", "no", "off",
  /// "0"). Throws when there is one that is of another type or out of range: "server.port: 'x' is
  /// not a value of this type".
  template <class T>
  requires std::is_arithmetic_v<T> T Get(std::string_view path, T whenAbsent)
  const;
  bool Has(std::string_view path) const { return Find(path).has_value(); }
  /// The paths of all values, in the order of the file.
  std::vector<std::string> Paths() const;

  /// Set the value, making what is missing on the way. Nothing reaches the file before Save().
  void Set(std::string_view path, std::string_view value);
  template <class T>
  requires std::is_arithmetic_v<T>
  void Set(std::string_view path, T value);
  /// Whether there was one.
  bool Remove(std::string_view path);

  /// Writes the store when something was set or removed since it was read or saved: whole or not
  /// at all, and on the disk when this returns. A new file is for its owner alone; one that is
  /// there keeps its permission. Throws when it cannot be written; the file is then as it was.
  void Save();

 private:
  struct State;
  [[noreturn]] static void RefuseValue(std::string_view path, const std::string& value);
  static std::optional<bool> Truth(std::string_view value);

  const std::string path_;
  std::string backup_;
  std::string backupReason_;
  std::unique_ptr<State> state_;
};

template <class T>
requires std::is_arithmetic_v<T> T Store::Get(std::string_view path, T whenAbsent)
const {
  const std::optional<std::string> value = Find(path);
  if (!value) return whenAbsent;
  if constexpr (std::is_same_v<T, bool>) {
    if (const std::optional<bool> truth = Truth(*value)) return *truth;
  } else {
    T number{};
    const char* const end = value->data() + value->size();
    const std::from_chars_result result = std::from_chars(value->data(), end, number);
    if (result.ec == std::errc() && result.ptr == end) return number;
  }
  RefuseValue(path, *value);
}

template <class T>
requires std::is_arithmetic_v<T>
void Store::Set(std::string_view path, T value) {
  if constexpr (std::is_same_v<T, bool>) {
    Set(path, std::string_view(value ? "true" : "false"));
  } else {
    char text[64];  // the shortest text that reads as this number again
    const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
    Set(path, std::string_view(text, static_cast<std::size_t>(result.ptr - text)));
  }
}

}  // namespace velkoro

#pragma once
// What the application keeps, in one SQLite file: people with their passwords and sessions, notes
// with their pictures. Everything belongs to the person it was asked for; nothing is found for
// another. Threads: any.

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace notes {

struct Note {
  std::int64_t id = 0;  ///< 0: not kept yet
  std::string title;
  std::string text;
  std::string changed;
  std::vector<std::int64_t> pictures;
};

struct Picture {
  std::string_view type;  ///< "image/png"
  std::string_view bytes;
};

class Database {
 public:
  static constexpr int kPageSize = 50;

  /// Opens the file, or makes it. Throws std::runtime_error, like all that follow, when SQLite
  /// cannot do what it is asked for.
  explicit Database(const std::string& path);

  /// Adds the person, or changes the password, which ends all sessions of theirs.
  void SetPassword(const std::string& person, const std::string& password);
  /// Takes a tenth of a second and 64 MiB, by design: whoever guesses pays for each guess. Nothing
  /// when too many guess at once.
  std::optional<bool> CheckPassword(const std::string& person, const std::string& password);

  /// Gives the secret that the browser shows from now on.
  std::string OpenSession(const std::string& person);
  /// Whose session it is; empty when it is none any more.
  std::string FindSession(const std::string& secret);
  void CloseSession(const std::string& secret);

  /// The newest first, with at most one picture each; those with all the words, if there are any.
  std::vector<Note> FindNotes(const std::string& person, std::string_view words, int page);
  std::optional<Note> GetNote(const std::string& person, std::int64_t id);
  /// Keeps the note with further pictures, whole or not at all. Gives its id, or nothing when the
  /// person has no such note.
  std::optional<std::int64_t> SaveNote(const std::string& person, const Note& note,
                                       const std::vector<Picture>& pictures);
  void DeleteNote(const std::string& person, std::int64_t id);
  /// Its type and its bytes.
  std::optional<std::pair<std::string, std::string>> GetPicture(const std::string& person,
                                                                std::int64_t id);

 private:
  struct Closer {
    void operator()(sqlite3* file) const { sqlite3_close(file); }
  };
  std::mutex lock_;  // one statement at a time
  std::unique_ptr<sqlite3, Closer> file_;
  std::timed_mutex guessing_;  // one password at a time
};

}  // namespace notes

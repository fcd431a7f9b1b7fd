#include "database.h"

#include <sodium.h>

#include <sstream>
#include <stdexcept>

namespace notes {
namespace {

constexpr const char* kSchema = R"(
  PRAGMA journal_mode = WAL;
  PRAGMA foreign_keys = ON;
  CREATE TABLE IF NOT EXISTS people (name TEXT PRIMARY KEY, password TEXT NOT NULL);
  CREATE TABLE IF NOT EXISTS sessions (secret TEXT PRIMARY KEY, until INTEGER NOT NULL,
    person TEXT NOT NULL REFERENCES people ON DELETE CASCADE);
  CREATE TABLE IF NOT EXISTS notes (id INTEGER PRIMARY KEY AUTOINCREMENT, title TEXT NOT NULL,
    text TEXT NOT NULL, changed INTEGER NOT NULL DEFAULT (unixepoch()),
    person TEXT NOT NULL REFERENCES people ON DELETE CASCADE);
  CREATE INDEX IF NOT EXISTS notes_of ON notes (person, changed);
  CREATE TABLE IF NOT EXISTS pictures (id INTEGER PRIMARY KEY AUTOINCREMENT, type TEXT NOT NULL,
    bytes BLOB NOT NULL, note INTEGER NOT NULL REFERENCES notes ON DELETE CASCADE);
  CREATE INDEX IF NOT EXISTS pictures_of ON pictures (note);
  CREATE VIRTUAL TABLE IF NOT EXISTS words USING fts5(title, text, content=notes, content_rowid=id);
  CREATE TRIGGER IF NOT EXISTS words_in AFTER INSERT ON notes BEGIN
    INSERT INTO words (rowid, title, text) VALUES (new.id, new.title, new.text); END;
  CREATE TRIGGER IF NOT EXISTS words_out AFTER DELETE ON notes BEGIN
    INSERT INTO words (words, rowid, title, text) VALUES ('delete', old.id, old.title, old.text); END;
  CREATE TRIGGER IF NOT EXISTS words_new AFTER UPDATE ON notes BEGIN
    INSERT INTO words (words, rowid, title, text) VALUES ('delete', old.id, old.title, old.text);
    INSERT INTO words (rowid, title, text) VALUES (new.id, new.title, new.text); END;
)";
constexpr const char* kNoteColumns =
    "SELECT id, title, text, strftime('%Y-%m-%d %H:%M', changed, 'unixepoch', 'localtime'), "
    "(SELECT min(id) FROM pictures WHERE note = notes.id) FROM notes ";

[[noreturn]] void Fail(sqlite3* file) {
  throw std::runtime_error(std::string("the database: ") + sqlite3_errmsg(file));
}

void Execute(sqlite3* file, const char* text) {
  if (sqlite3_exec(file, text, nullptr, nullptr, nullptr) != SQLITE_OK) Fail(file);
}

/// A statement with its values, which never become part of its text.
class Statement {
 public:
  template <class... Values>
  Statement(sqlite3* file, const std::string& text, const Values&... values) : file_(file) {
    if (sqlite3_prepare_v2(file, text.c_str(), -1, &statement_, nullptr) != SQLITE_OK) Fail(file);
    int at = 0;
    (Bind(++at, values), ...);
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  /// Goes to the next row, if there is one.
  bool Next() {
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) Fail(file_);
    return result == SQLITE_ROW;
  }
  std::int64_t Number(int column) { return sqlite3_column_int64(statement_, column); }
  std::string Text(int column) {
    const void* const bytes = sqlite3_column_blob(statement_, column);
    return {static_cast<const char*>(bytes ? bytes : ""),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
  }

 private:
  void Bind(int at, std::int64_t number) { sqlite3_bind_int64(statement_, at, number); }
  void Bind(int at, const std::string& text) {
    sqlite3_bind_text64(statement_, at, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  }
  // The bytes of a picture outlive the statement.
  void Bind(int at, std::string_view bytes) {
    sqlite3_bind_blob64(statement_, at, bytes.data(), bytes.size(), SQLITE_STATIC);
  }

  sqlite3* const file_;
  sqlite3_stmt* statement_ = nullptr;
};

/// Undone unless it comes to Commit().
class Transaction {
 public:
  explicit Transaction(sqlite3* file) : file_(file) { Execute(file, "BEGIN IMMEDIATE"); }
  ~Transaction() {
    if (!sqlite3_get_autocommit(file_)) sqlite3_exec(file_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void Commit() { Execute(file_, "COMMIT"); }

 private:
  sqlite3* const file_;
};

/// What is kept of a session's secret: whoever reads the file cannot use it.
std::string Fingerprint(const std::string& secret) {
  unsigned char hash[crypto_generichash_BYTES];
  crypto_generichash(hash, sizeof hash, reinterpret_cast<const unsigned char*>(secret.data()),
                     secret.size(), nullptr, 0);
  char text[2 * sizeof hash + 1];
  return sodium_bin2hex(text, sizeof text, hash, sizeof hash);
}

/// Each word as a text of the search language, good for words that begin so as well.
std::string SearchText(std::string_view words) {
  std::istringstream from{std::string(words)};
  std::string text;
  for (std::string word; from >> word; text += "\"* ") {
    text += '"';
    for (const char byte : word) text += byte == '"' ? ' ' : byte;
  }
  return text;
}

Note ReadNote(Statement& found) {
  Note note{found.Number(0), found.Text(1), found.Text(2), found.Text(3), {}};
  if (const std::int64_t picture = found.Number(4); picture != 0) note.pictures = {picture};
  return note;
}

}  // namespace

Database::Database(const std::string& path) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium does not start");
  sqlite3* file = nullptr;
  const int result = sqlite3_open(path.c_str(), &file);
  file_.reset(file);
  if (result != SQLITE_OK) throw std::runtime_error(path + ": " + sqlite3_errmsg(file));
  sqlite3_busy_timeout(file, 5000);  // milliseconds; another process may add a person meanwhile
  Execute(file, kSchema);
}

void Database::SetPassword(const std::string& person, const std::string& password) {
  char hash[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str(hash, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0)
    throw std::runtime_error("there is not enough memory for the password");
  const std::lock_guard hold(lock_);
  Statement(
      file_.get(),
      "INSERT INTO people VALUES (?, ?) ON CONFLICT DO UPDATE SET password = excluded.password",
      person, std::string(hash))
      .Next();
  Statement(file_.get(), "DELETE FROM sessions WHERE person = ?", person).Next();
}

std::optional<bool> Database::CheckPassword(const std::string& person,
                                            const std::string& password) {
  // Someone who is not known takes as long as a wrong password.
  std::string hash =
      "$argon2id$v=19$m=65536,t=2,p=1$bm9ib2R5LW5vYm9keS0xMg$"
      "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";
  {
    const std::lock_guard hold(lock_);
    Statement found(file_.get(), "SELECT password FROM people WHERE name = ?", person);
    if (found.Next()) hash = found.Text(0);
  }
  const std::unique_lock turn(guessing_, std::chrono::seconds(2));
  if (!turn) return std::nullopt;
  return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

std::string Database::OpenSession(const std::string& person) {
  unsigned char bytes[32];
  randombytes_buf(bytes, sizeof bytes);
  char text[2 * sizeof bytes + 1];
  const std::string secret = sodium_bin2hex(text, sizeof text, bytes, sizeof bytes);
  const std::lock_guard hold(lock_);
  Execute(file_.get(), "DELETE FROM sessions WHERE until < unixepoch()");
  Statement(file_.get(), "INSERT INTO sessions VALUES (?, unixepoch('now', '+30 days'), ?)",
            Fingerprint(secret), person)
      .Next();
  return secret;
}

std::string Database::FindSession(const std::string& secret) {
  const std::lock_guard hold(lock_);
  Statement found(file_.get(),
                  "SELECT person FROM sessions WHERE secret = ? AND until >= unixepoch()",
                  Fingerprint(secret));
  return found.Next() ? found.Text(0) : std::string();
}

void Database::CloseSession(const std::string& secret) {
  const std::lock_guard hold(lock_);
  Statement(file_.get(), "DELETE FROM sessions WHERE secret = ?", Fingerprint(secret)).Next();
}

std::vector<Note> Database::FindNotes(const std::string& person, std::string_view words, int page) {
  const std::string search = SearchText(words);
  const std::lock_guard hold(lock_);
  Statement found(file_.get(),
                  std::string(kNoteColumns) +
                      "WHERE person = ? AND (? = '' OR id IN (SELECT rowid FROM words(?))) "
                      "ORDER BY changed DESC, id DESC LIMIT ? OFFSET ?",
                  person, search, search.empty() ? std::string("none") : search,
                  std::int64_t{kPageSize}, std::int64_t{kPageSize} * (page - 1));
  std::vector<Note> notes;
  while (found.Next()) notes.push_back(ReadNote(found));
  return notes;
}

std::optional<Note> Database::GetNote(const std::string& person, std::int64_t id) {
  const std::lock_guard hold(lock_);
  Statement found(file_.get(), std::string(kNoteColumns) + "WHERE person = ? AND id = ?", person,
                  id);
  if (!found.Next()) return std::nullopt;
  Note note = ReadNote(found);
  note.pictures.clear();
  Statement pictures(file_.get(), "SELECT id FROM pictures WHERE note = ? ORDER BY id", id);
  while (pictures.Next()) note.pictures.push_back(pictures.Number(0));
  return note;
}

std::optional<std::int64_t> Database::SaveNote(const std::string& person, const Note& note,
                                               const std::vector<Picture>& pictures) {
  const std::lock_guard hold(lock_);
  Transaction transaction(file_.get());
  Statement saved(file_.get(),
                  note.id == 0
                      ? "INSERT INTO notes (title, text, person) VALUES (?, ?, ?) RETURNING id"
                      : "UPDATE notes SET title = ?, text = ?, changed = unixepoch() "
                        "WHERE person = ? AND id = ? RETURNING id",
                  note.title, note.text, person, note.id);
  if (!saved.Next()) return std::nullopt;
  const std::int64_t id = saved.Number(0);
  while (saved.Next()) {
  }
  for (const Picture& picture : pictures)
    Statement(file_.get(), "INSERT INTO pictures (type, bytes, note) VALUES (?, ?, ?)",
              std::string(picture.type), picture.bytes, id)
        .Next();
  transaction.Commit();
  return id;
}

void Database::DeleteNote(const std::string& person, std::int64_t id) {
  const std::lock_guard hold(lock_);
  Statement(file_.get(), "DELETE FROM notes WHERE person = ? AND id = ?", person, id).Next();
}

std::optional<std::pair<std::string, std::string>> Database::GetPicture(const std::string& person,
                                                                        std::int64_t id) {
  const std::lock_guard hold(lock_);
  Statement found(file_.get(),
                  "SELECT type, bytes FROM pictures JOIN notes ON notes.id = note "
                  "WHERE person = ? AND pictures.id = ?",
                  person, id);
  if (!found.Next()) return std::nullopt;
  return std::pair(found.Text(0), found.Text(1));
}

}  // namespace notes

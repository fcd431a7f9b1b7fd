#include "velkoro/store.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/filesystem.h"
#include "platform/io.h"
#include "platform/sync.h"
#include "velkoro/documents.h"

namespace velkoro {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{256} << 20;
constexpr std::size_t kMaxNames = 100;
constexpr unsigned kMostBackups = 100;
constexpr unsigned kNewFileMode = 0600;

// The names of a path; the last is the attribute's.
std::vector<std::string_view> Pieces(std::string_view path) {
  std::vector<std::string_view> pieces;
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t dot = std::min(path.find('.', start), path.size());
    pieces.push_back(path.substr(start, dot - start));
    start = dot + 1;
    if (pieces.back().empty() || pieces.size() > kMaxNames)
      throw StoreError("'" + std::string(path) + "' is not the path of a value");
  }
  return pieces;
}

// Puts the bytes into a file beside the path unless they are there already. Returns its name.
std::string BackUp(const std::string& path, const std::string& bytes) {
  for (unsigned i = 1; i <= kMostBackups; ++i) {
    std::string backup = path + ".unreadable" + (i > 1 ? "." + std::to_string(i) : "");
    if (zr::PathKind(backup) == zr::ZrPathKind::kMissing) {
      const int error = zr::ReplaceFile(backup, bytes, kNewFileMode);
      if (error != 0) throw StoreError(backup + ": " + zr::SystemErrorText(error));
      return backup;
    }
    if (zr::ReadWholeFile(backup, kMaxFileBytes) == bytes) return backup;
  }
  throw StoreError(path + ": can't be read, and there are too many copies of such files");
}

void AppendPaths(const Element& element, const std::string& prefix,
                 std::vector<std::string>& paths) {
  for (const auto& [name, value] : element.Attributes()) paths.push_back(prefix + name);
  std::set<std::string_view> seen;  // of two elements with one name the first counts
  for (const Element& child : element.Children()) {
    const std::string& name = child.Name();
    if (seen.insert(name).second) AppendPaths(child, prefix + name + '.', paths);
  }
}

}  // namespace

struct Store::State {
  ZrMutex lock;
  Document document ZR_GUARDED_BY(lock){"store"};
  bool changed ZR_GUARDED_BY(lock) = false;

  // The element that has the attribute; empty when there is none.
  Element FindElement(const std::vector<std::string_view>& pieces) ZR_REQUIRES(lock) {
    Element element = document.Root();
    for (std::size_t i = 0; i + 1 < pieces.size() && element; ++i)
      element = element.First(pieces[i]);
    return element;
  }
};

Store::Store(std::string path) : path_(std::move(path)), state_(std::make_unique<State>()) {
  if (zr::PathKind(path_) == zr::ZrPathKind::kMissing) return;
  int error = 0;
  const std::optional<std::string> text = zr::ReadWholeFile(path_, kMaxFileBytes, &error);
  if (!text) throw StoreError(path_ + ": " + zr::SystemErrorText(error));
  try {
    Document read = Document::ReadText(*text, DocumentKind::kXml, path_);
    const ZrLock hold(state_->lock);
    state_->document = std::move(read);
  } catch (const DocumentError& e) {
    backup_ = BackUp(path_, *text);
    backupReason_ = e.what();
  }
}

Store::~Store() = default;

std::optional<std::string> Store::Find(std::string_view path) const {
  const std::vector<std::string_view> pieces = Pieces(path);
  const ZrLock hold(state_->lock);
  const Element element = state_->FindElement(pieces);
  return element ? element.Attribute(pieces.back()) : std::nullopt;
}

std::string Store::Get(std::string_view path, std::string_view whenAbsent) const {
  std::optional<std::string> value = Find(path);
  return value ? std::move(*value) : std::string(whenAbsent);
}

std::vector<std::string> Store::Paths() const {
  std::vector<std::string> paths;
  const ZrLock hold(state_->lock);
  AppendPaths(state_->document.Root(), {}, paths);
  return paths;
}

void Store::Set(std::string_view path, std::string_view value) {
  const std::vector<std::string_view> pieces = Pieces(path);
  try {
    // All names are looked at before the first element is made.
    for (const std::string_view piece : pieces) (void)Part::Element(piece);
    const ZrLock hold(state_->lock);
    Element element = state_->document.Root();
    for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
      const Element next = element.First(pieces[i]);
      element = next ? next : element.Add(pieces[i]);
    }
    if (element.Attribute(pieces.back()) == value) return;
    element.Set(pieces.back(), value);
    state_->changed = true;
  } catch (const DocumentError& e) {
    throw StoreError("'" + std::string(path) + "' is not the path of a value: " + e.what());
  }
}

bool Store::Remove(std::string_view path) {
  const std::vector<std::string_view> pieces = Pieces(path);
  const ZrLock hold(state_->lock);
  Element element = state_->FindElement(pieces);
  if (!element || !element.Unset(pieces.back())) return false;
  state_->changed = true;
  return true;
}

void Store::Save() {
  // Under the lock: of two that save at once the later one has the last word.
  const ZrLock hold(state_->lock);
  if (!state_->changed) return;
  const int error = zr::RewriteFile(path_, state_->document.Text(), kNewFileMode);
  if (error != 0) throw StoreError(path_ + ": " + zr::SystemErrorText(error));
  state_->changed = false;
}

void Store::RefuseValue(std::string_view path, const std::string& value) {
  throw StoreError(std::string(path) + ": '" + value + "' is not a value of this type");
}

std::optional<bool> Store::Truth(std::string_view value) {
  if (value == "true" || value == "yes" || value == "on" || value == "1") return true;
  if (value == "false" || value == "no" || value == "off" || value == "0") return false;
  return std::nullopt;
}

}  // namespace velkoro

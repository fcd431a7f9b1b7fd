#include "handlers/served_files.h"

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <utility>

#include "base/batch.h"
#include "base/workbench.h"
#include "http/file_answer.h"

namespace {

// A thread keeps so many small files open, and each as long as it is asked for once in so many
// batches: what they occupy on the disk is not free when they are removed.
constexpr std::size_t kMostOpen = 16;
constexpr int kMostUnasked = 1000;

template <class Value>
using ByName = std::map<std::string, Value, std::less<>,
                        ZrWorkbenchAllocator<std::pair<const std::string, Value>>>;

}  // namespace

/// What is known of the files beneath a start directory: in this batch, and of files that are open
/// since an earlier one.
struct ZrServedFiles::Start {
  struct Entry {
    Found found;
    bool askedAgain = false;
    bool atHand = false;
    // Of one that stays open:
    std::string place = {};  // its path for the system; empty: it does not
    bool known = true;       // to be what the name leads to, in this batch
    int unasked = 0;         // batches that nobody asked for it
  };
  /// One that was asked for lately.
  struct Asked {
    std::size_t name = 0;
    bool unfit = false;  // does not stay open
  };

  std::optional<Directory> directory;  // once it was looked at in this batch
  ByName<Entry> files;
  std::size_t open = 0;  // of those, so many stay
  std::array<Asked, kMostOpen> asked;
  std::size_t nextAsked = 0;

  /// What is known in this batch; nothing when it has to be looked up.
  Entry* Find(const std::string& path) {
    const auto found = files.find(path);
    if (found == files.end()) return nullptr;
    Entry& entry = found->second;
    if (!entry.known) {
      const std::size_t start = entry.place.size() - path.size();
      if (!entry.found.file->IsStillAt(entry.place, start)) {
        files.erase(found);
        --open;
        return nullptr;
      }
      entry.known = true;
      entry.unasked = 0;
    }
    return &entry;
  }
  /// The file was found and read without waiting: it stays open when it is not the first time, and
  /// no link leads to it.
  void Opened(const std::string& path, Entry& entry) {
    const std::size_t name = std::hash<std::string>()(path);
    const auto before = std::find_if(asked.begin(), asked.end(),
                                     [name](const Asked& one) { return one.name == name; });
    if (before == asked.end()) {
      asked[nextAsked] = {.name = name};
      nextAsked = (nextAsked + 1) % asked.size();
      return;
    }
    if (before->unfit || open == kMostOpen) return;
    const std::string& start = (*directory)->Path();
    std::string place = start + path;
    before->unfit = path.starts_with('/') || !entry.found.file->IsStillAt(place, start.size());
    if (before->unfit) return;
    entry.place = std::move(place);
    ++open;
  }
  void Clear() {
    directory.reset();
    for (auto file = files.begin(); file != files.end();) {
      Entry& entry = file->second;
      if (!entry.place.empty() && ++entry.unasked < kMostUnasked) {
        entry.found.bytes = nullptr;
        entry.askedAgain = entry.known = false;
        ++file;
      } else {
        open -= entry.place.empty() ? 0 : 1;
        file = files.erase(file);
      }
    }
  }
  void Rest() {
    files.clear();
    open = 0;
  }
};

/// What one batch has found.
struct ZrServedFiles::BatchFiles {
  static constexpr std::size_t kMostStarts = 16;  // they come and go

  ByName<Start> starts;
  std::uint64_t bytes = 0;

  void Clear() {
    bytes = 0;
    if (starts.size() > kMostStarts) return starts.clear();
    for (auto& [name, start] : starts) start.Clear();
  }
  bool IsLeft() const {
    return std::any_of(
        starts.begin(), starts.end(), [](const auto& start) { return start.second.open > 0; });
  }
  void Rest() {
    for (auto& [name, start] : starts) start.Rest();
  }
  /// Whether the bytes of this file are shared; they are counted then.
  bool Shares(const ZrFile& file) {
    if (!file.IsRegular() || file.Size() > kSharedFileSize || bytes + file.Size() > kSharedBytes)
      return false;
    bytes += file.Size();
    return true;
  }
};

namespace {

// Bytes that turn out fewer, or cannot be read, are left to who sends the file.
template <class Read>
void Keep(ZrServedFiles::Found& found, Read read) {
  const auto bytes = std::allocate_shared<std::string>(ZrWorkbenchAllocator<std::string>());
  bytes->resize(static_cast<std::size_t>(found.file->Size()));
  if (read(*found.file, *bytes) != bytes->size()) return;
  using Notes = ZrServedFiles::Notes;
  if (!found.notes) found.notes = std::allocate_shared<Notes>(ZrWorkbenchAllocator<Notes>());
  found.bytes = bytes;
}

// Who sends a large file takes what is in memory and leaves the rest to another thread: one that is
// not there at all need not come that way.
bool BeginsAtHand(const ZrFile& file) {
  std::array<char, 1> first;
  return file.IsRegular() && file.Size() > ZrServedFiles::kSharedFileSize &&
         file.ReadAtHand(0, first).has_value();
}

}  // namespace

ZrServedFiles::Directory ZrServedFiles::Current(const std::string& directory) {
  Directory known;
  {
    ZrLock hold(lock_);
    const auto found = directories_.find(directory);
    if (found != directories_.end()) known = found->second;
  }
  if (known && known->IsCurrent()) return known;
  Directory opened = ZrDirectory::Open(directory);
  ZrLock hold(lock_);
  if (opened)
    directories_.insert_or_assign(directory, opened);
  else
    directories_.erase(directory);
  return opened;
}

const ZrServedFiles::Directory& ZrServedFiles::InBatch(Start& start, const std::string& directory) {
  if (!start.directory) start.directory = Current(directory);
  return *start.directory;
}

ZrServedFiles::Found ZrServedFiles::Find(const std::string& directory, const std::string& path) {
  ZrBatch* const batch = ZrBatch::Current();
  if (batch == nullptr) {
    const Directory start = Current(directory);
    return {.file = start ? start->OpenFile(path) : nullptr};
  }
  auto& known = batch->Of<BatchFiles>(this);
  Start& start = known.starts[directory];
  Start::Entry* const entry = start.Find(path);
  if (entry == nullptr) {
    const Directory& opened = InBatch(start, directory);
    if (!opened) return {};
    Start::Entry fresh;
    fresh.found.file = opened->OpenFile(path);
    return start.files.emplace(path, std::move(fresh)).first->second.found;
  }
  if (!std::exchange(entry->askedAgain, true) && entry->found.file && !entry->found.bytes &&
      known.Shares(*entry->found.file))
    // The first request reads the file into its answer; whoever asks again shares one copy.
    Keep(entry->found, [](const ZrFile& file, std::string& to) { return file.ReadAt(0, to); });
  return entry->found;
}

bool ZrServedFiles::IsAtHand(const std::string& directory, const std::string& path) try {
  ZrBatch* const batch = ZrBatch::Current();
  if (batch == nullptr) return false;
  auto& known = batch->Of<BatchFiles>(this);
  Start& start = known.starts[directory];
  const auto readAtHand = [&known](Found& found) {
    if (found.file && !found.bytes && known.Shares(*found.file))
      Keep(found, [](const ZrFile& file, std::string& to) { return file.ReadAtHand(0, to); });
    return !found.file || found.bytes;
  };
  if (Start::Entry* const entry = start.Find(path); entry != nullptr) {
    // One that stayed open has its bytes read anew.
    if (!entry->place.empty()) return readAtHand(entry->found);
    return !entry->found.file || entry->found.bytes || entry->atHand;
  }
  const Directory& opened = InBatch(start, directory);
  if (!opened) return true;
  ZrFileAtHand now = opened->OpenFileAtHand(path);
  if (now.answer == ZrFileAtHand::Answer::kMustWait) return false;
  Start::Entry entry;
  entry.found.file = std::move(now.file);
  const bool atHand = readAtHand(entry.found) || BeginsAtHand(*entry.found.file);
  entry.atHand = atHand;
  if (entry.found.bytes) start.Opened(path, entry);
  start.files.emplace(path, std::move(entry));
  return atHand;
} catch (const ZrCannotTell&) {
  return false;
}

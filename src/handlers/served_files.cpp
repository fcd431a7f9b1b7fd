#include "handlers/served_files.h"

#include <array>
#include <utility>

#include "base/batch.h"
#include "base/workbench.h"
#include "http/file_answer.h"

/// What one batch has found.
struct ZrServedFiles::BatchFiles {
  struct Entry {
    Found found;
    bool askedAgain = false;
    bool atHand = false;
  };
  using Key = std::pair<const ZrDirectory*, std::string>;
  using Asked = std::pair<const ZrDirectory*, std::string_view>;
  struct Before {
    using is_transparent = void;
    template <class One, class Other>
    bool operator()(const One& one, const Other& other) const {
      return Asked(one) < Asked(other);
    }
  };
  template <class Name, class Value, class Order>
  using Map = std::map<Name, Value, Order, ZrWorkbenchAllocator<std::pair<const Name, Value>>>;
  Map<std::string, Directory, std::less<>> directories;
  Map<Key, Entry, Before> files;
  std::uint64_t bytes = 0;
  // What was asked for last, which is asked for again at once; empty or in the maps.
  decltype(directories)::value_type* lastDirectory = nullptr;
  decltype(files)::value_type* lastFile = nullptr;

  void Clear() {
    lastDirectory = nullptr;
    lastFile = nullptr;
    directories.clear();
    files.clear();
    bytes = 0;
  }
  /// Nothing when nobody has asked for it.
  Entry* EntryOf(const ZrDirectory* start, const std::string& path) {
    if (lastFile == nullptr || lastFile->first.first != start || lastFile->first.second != path) {
      const auto place = files.find(Asked(start, path));
      if (place == files.end()) return nullptr;
      lastFile = &*place;
    }
    return &lastFile->second;
  }
  Entry& Enter(const ZrDirectory* start, const std::string& path, Entry entry) {
    lastFile = &*files.emplace(std::pair(start, path), std::move(entry)).first;
    return lastFile->second;
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

/// The bytes and notes of a file in one piece of memory.
struct InMemory {
  std::string bytes;
  ZrServedFiles::Notes notes;
};

// Bytes that turn out fewer, or cannot be read, are left to who sends the file.
template <class Read>
void Keep(ZrServedFiles::Found& found, Read read) {
  const auto kept = std::make_shared<InMemory>();
  kept->bytes.resize(static_cast<std::size_t>(found.file->Size()));
  if (read(*found.file, kept->bytes) != kept->bytes.size()) return;
  found.bytes = {kept, &kept->bytes};
  found.notes = {kept, &kept->notes};
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

ZrServedFiles::Found ZrServedFiles::Find(const std::string& directory, const std::string& path) {
  ZrBatch* const batch = ZrBatch::Current();
  if (batch == nullptr) {
    const Directory start = Current(directory);
    return {.file = start ? start->OpenFile(path) : nullptr};
  }
  auto& known = batch->Of<BatchFiles>(this);
  const Directory& start = InBatch(known, directory);
  if (!start) return {};
  BatchFiles::Entry* const place = known.EntryOf(start.get(), path);
  if (place == nullptr) {
    BatchFiles::Entry entry;
    entry.found.file = start->OpenFile(path);
    return known.Enter(start.get(), path, std::move(entry)).found;
  }
  if (!std::exchange(place->askedAgain, true) && place->found.file && !place->found.bytes &&
      known.Shares(*place->found.file))
    // The first request reads the file into its answer; whoever asks again shares one copy.
    Keep(place->found, [](const ZrFile& file, std::string& to) { return file.ReadAt(0, to); });
  return place->found;
}

const ZrServedFiles::Directory& ZrServedFiles::InBatch(BatchFiles& known,
                                                       const std::string& directory) {
  if (known.lastDirectory == nullptr || known.lastDirectory->first != directory) {
    auto start = known.directories.find(directory);
    if (start == known.directories.end())
      start = known.directories.emplace(directory, Current(directory)).first;
    known.lastDirectory = &*start;
  }
  return known.lastDirectory->second;
}

bool ZrServedFiles::IsAtHand(const std::string& directory, const std::string& path) try {
  ZrBatch* const batch = ZrBatch::Current();
  if (batch == nullptr) return false;
  auto& known = batch->Of<BatchFiles>(this);
  const Directory& start = InBatch(known, directory);
  if (!start) return true;
  if (const auto* const entry = known.EntryOf(start.get(), path))
    return !entry->found.file || entry->found.bytes || entry->atHand;
  ZrFileAtHand now = start->OpenFileAtHand(path);
  if (now.answer == ZrFileAtHand::Answer::kMustWait) return false;
  BatchFiles::Entry entry;
  entry.found.file = std::move(now.file);
  if (entry.found.file && known.Shares(*entry.found.file))
    Keep(entry.found, [](const ZrFile& file, std::string& to) { return file.ReadAtHand(0, to); });
  entry.atHand = !entry.found.file || entry.found.bytes || BeginsAtHand(*entry.found.file);
  const bool atHand = entry.atHand;
  known.Enter(start.get(), path, std::move(entry));
  return atHand;
} catch (const ZrCannotTell&) {
  return false;
}

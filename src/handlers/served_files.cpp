#include "handlers/served_files.h"

#include <utility>

#include "base/batch.h"

/// What one batch has found.
struct ZrServedFiles::BatchFiles {
  struct Entry {
    Found found;
    bool askedAgain = false;
  };
  std::map<std::string, Directory, std::less<>> directories;
  std::map<std::pair<const ZrDirectory*, std::string>, Entry> files;
  std::uint64_t bytes = 0;
};

namespace {

// The first request reads the file into its answer; whoever asks again shares one copy. A file that
// turns out shorter or cannot be read is left to the way of the first.
std::shared_ptr<const std::string> ReadWhole(const ZrFile& file) {
  auto bytes = std::make_shared<std::string>(static_cast<std::size_t>(file.Size()), '\0');
  if (file.ReadAt(0, *bytes) != bytes->size()) return nullptr;
  return bytes;
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
  if (opened) {
    directories_.insert_or_assign(directory, opened);
  } else {
    directories_.erase(directory);
  }
  return opened;
}

ZrServedFiles::Found ZrServedFiles::Find(const std::string& directory, const std::string& path) {
  ZrBatch* const batch = ZrBatch::Current();
  if (batch == nullptr) {
    const Directory start = Current(directory);
    return {start ? start->OpenFile(path) : nullptr, nullptr};
  }
  auto& known = batch->Of<BatchFiles>(this);
  auto start = known.directories.find(directory);
  if (start == known.directories.end()) {
    start = known.directories.emplace(directory, Current(directory)).first;
  }
  if (!start->second) return {};
  const auto [place, added] = known.files.try_emplace({start->second.get(), path});
  BatchFiles::Entry& entry = place->second;
  if (added) {
    entry.found.file = start->second->OpenFile(path);
  } else if (!std::exchange(entry.askedAgain, true) && entry.found.file) {
    const ZrFile& file = *entry.found.file;
    if (file.IsRegular() && file.Size() <= kSharedFileSize &&
        known.bytes + file.Size() <= kSharedBytes) {
      entry.found.bytes = ReadWhole(file);
      known.bytes += file.Size();
    }
  }
  return entry.found;
}

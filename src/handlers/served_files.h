#pragma once
// Finds the files that are served. Start directories stay open between requests, and are looked at
// once for each batch of requests, as another directory may have taken their names; a file is
// looked up once in a batch, also one that is not there. A few small files that are asked for again
// and again stay open with the thread, until it has had nothing to do for a moment: the first
// request of each batch looks whether the name still leads there, and reads the bytes anew. So a
// file that was replaced, cut or removed is seen by the next request, and so is a start directory.

#include <array>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/file.h"
#include "platform/sync.h"

struct ZrFileHead;
struct ZrSite;

/// Threads: any. Outlives the batches in which it is asked.
class ZrServedFiles {
 public:
  /// Files up to that size (bytes) are read once for a batch that asks for them repeatedly ...
  static constexpr std::uint64_t kSharedFileSize = std::uint64_t{64} * 1024;
  /// ... as long as all those of a batch are not larger than that together.
  static constexpr std::uint64_t kSharedBytes = std::uint64_t{1} << 20;

  /// What was made for one request and serves others, of a file in memory, for as long as that does
  /// not change. Of this thread alone, and of no use to another site than that, whose address is
  /// no other's meanwhile.
  struct Notes {
    std::shared_ptr<const ZrSite> site = nullptr;
    bool compressible = false;
    std::array<std::shared_ptr<const ZrFileHead>, 2> heads = {};  // the second one varies
  };
  struct Found {
    std::shared_ptr<const ZrFile> file = nullptr;  ///< Empty: there is no such file or directory.
    /// The whole of the file, where it was read already; else empty, as its notes are.
    std::shared_ptr<const std::string> bytes = nullptr;
    std::shared_ptr<Notes> notes = nullptr;
  };
  /// The file of that path beneath the directory, whose text is in the stored form; see
  /// ZrFile::OpenBeneath(). Throws ZrCannotTell.
  Found Find(const std::string& directory, const std::string& path) ZR_EXCLUDES(lock_);
  /// Whether Find() answers for the rest of this batch without waiting for the disk: with the bytes
  /// of the file, with a large file that begins in memory, or the word that there is none. No
  /// outside of a batch.
  bool IsAtHand(const std::string& directory, const std::string& path) ZR_EXCLUDES(lock_);

 private:
  struct BatchFiles;
  struct Start;
  using Directory = std::shared_ptr<const ZrDirectory>;

  Directory Current(const std::string& directory) ZR_EXCLUDES(lock_);
  /// The directory as it stands in this batch.
  const Directory& InBatch(Start& start, const std::string& directory) ZR_EXCLUDES(lock_);

  ZrMutex lock_;
  // One or a few: a client has one start directory for its life.
  std::map<std::string, Directory, std::less<>> directories_ ZR_GUARDED_BY(lock_);
};

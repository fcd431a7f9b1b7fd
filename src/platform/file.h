#pragma once
// Files that are served: opened once, so that status and bytes come from the same descriptor, and
// only when they lie beneath the directory that they are asked for in.
// Rules: descriptors are close-on-exec, EINTR is retried, nothing blocks on a FIFO, and every
// failure to open (missing, forbidden, leads out, no regular file or directory) is "does not
// exist". Only when the system could not even look, for want of descriptors or memory or as the
// disk failed, that is said: by ZrCannotTell.

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/descriptor.h"
#include "platform/filesystem.h"

/// Whether a file is there cannot be told now; it may be told later.
class ZrCannotTell final : public std::exception {
 public:
  const char* what() const noexcept override { return "the system could not look for the file"; }
};

/// An open regular file or directory. Immutable after opening, so any number of threads may use it;
/// held in shared ownership by every answer that sends it.
class ZrFile {
 public:
  /// Opens `path` beneath `directory`. The directory's text is in the stored form and goes through
  /// zr::SystemDirectory(); the bytes of the path are taken as they are, whoever sent them.
  /// Symbolic links are followed as long as they end beneath the directory as it stands on disk.
  /// Returns nothing when there is no such file: also for an empty directory or path, a NUL byte, a
  /// ".." piece anywhere, and anything that is neither a regular file nor a directory. Throws
  /// ZrCannotTell, as the two others do.
  static std::shared_ptr<const ZrFile> OpenBeneath(std::string_view directory,
                                                   std::string_view path);
  /// Whether OpenBeneath() would find the file, asked without a right to read it: a program may be
  /// there to be run only.
  static bool ExistsBeneath(std::string_view directory, std::string_view path);
  /// What it is.
  static zr::ZrPathKind KindBeneath(std::string_view directory, std::string_view path);
  /// Opens a file by its path in the system's form, wherever it lies. Nothing when it is not there.
  static std::shared_ptr<const ZrFile> Open(const std::string& path);

  bool IsRegular() const noexcept { return !facts_.directory; }
  bool IsDirectory() const noexcept { return facts_.directory; }
  /// Bytes in the file when it was opened; 0 for a directory.
  std::uint64_t Size() const noexcept { return facts_.size; }
  /// Seconds since 1970 of the last change of the content when it was opened.
  std::int64_t ModifiedSeconds() const noexcept { return facts_.modified / 1'000'000'000; }
  /// The same in nanoseconds.
  std::int64_t ModifiedNs() const noexcept { return facts_.modified; }
  /// With Node(): which file it is, whatever its name.
  std::uint64_t Device() const noexcept { return facts_.device; }
  std::uint64_t Node() const noexcept { return facts_.node; }
  /// Fills the target from that offset. Returns the bytes read, fewer than asked for only at the
  /// end of the file (which may have moved since the opening); nothing when the disk failed.
  std::optional<std::size_t> ReadAt(std::uint64_t offset, std::span<char> target) const;
  /// The same for bytes that the system has in memory; nothing when it would have to wait for any
  /// of them, or cannot tell.
  std::optional<std::size_t> ReadAtHand(std::uint64_t offset, std::span<char> target) const;
  /// What stands in a directory.
  struct Entry {
    enum class Kind : std::uint8_t { kFile, kDirectory, kLink };
    std::string name;
    Kind kind = Kind::kFile;
    std::uint64_t size = 0;     ///< of a file
    std::int64_t modified = 0;  ///< nanoseconds since 1970
  };
  /// The files, directories and links in a directory, in no order, at most that many of them; empty
  /// when it cannot be read, and for a file.
  std::vector<Entry> Entries(std::size_t most) const;
  /// Whether that path (in the system's form) leads to this very file, and nothing of it has
  /// changed since it was opened: its size, times, rights and owner. Behind the first `start`
  /// bytes, those of a directory with the separator at its end, only real directories count, and at
  /// most kMostLooks of them: behind a link the answer is no. One look at the disk for each, which
  /// on a file system of another machine asks that one. No as well when the system cannot tell.
  bool IsStillAt(const std::string& path, std::size_t start) const;
  static constexpr int kMostLooks = 2;  // with more of them opening is cheaper
  /// For zr::SendFile(). Stays owned by this object.
  int Descriptor() const noexcept { return descriptor_.Get(); }

 private:
  friend class ZrDirectory;
  struct Facts {
    bool directory = false;
    std::uint64_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since 1970
    std::uint64_t device = 0;
    std::uint64_t node = 0;
    std::int64_t changed = 0;  // the same, of the facts as well
    std::uint32_t rights = 0;
    std::uint32_t owner = 0;
    std::uint32_t group = 0;
    bool operator==(const Facts&) const = default;
  };

  ZrFile(ZrDescriptor descriptor, const Facts& facts) noexcept
      : descriptor_(std::move(descriptor)), facts_(facts) {}
  static std::shared_ptr<const ZrFile> FromDescriptor(ZrDescriptor descriptor);

  ZrDescriptor descriptor_;
  Facts facts_;
};

/// What is known of a file without waiting for the disk.
struct ZrFileAtHand {
  enum class Answer {
    kFile,      ///< It is there and open.
    kNotThere,  ///< There is no such file, as for ZrFile::OpenBeneath().
    kMustWait,  ///< Only a look at the disk can tell: ask ZrDirectory::OpenFile().
  };
  Answer answer = Answer::kMustWait;
  std::shared_ptr<const ZrFile> file = nullptr;
};

/// A directory that files are served from, kept open, so that a file costs one call to open.
/// Immutable; any number of threads may use it. Held in shared ownership.
class ZrDirectory {
 public:
  /// The text is in the stored form, as for ZrFile::OpenBeneath(). Nothing when there is no such
  /// directory. Throws ZrCannotTell.
  static std::shared_ptr<const ZrDirectory> Open(std::string_view directory);

  /// Whether the name it was opened under still leads to it. One look at the disk; a directory that
  /// is kept open keeps its identity, so no other one can be taken for it.
  bool IsCurrent() const noexcept;
  /// The name it was opened under, in the system's form, with a separator at its end.
  const std::string& Path() const noexcept { return path_; }
  /// As ZrFile::OpenBeneath().
  std::shared_ptr<const ZrFile> OpenFile(std::string_view path) const;
  /// The same without waiting: from what the system has at hand.
  ZrFileAtHand OpenFileAtHand(std::string_view path) const;

 private:
  friend class ZrFile;
  ZrDescriptor OpenPath(std::string_view path, int flags) const;
  ZrDirectory(ZrDescriptor descriptor, std::string path, std::uint64_t device,
              std::uint64_t inode) noexcept
      : descriptor_(std::move(descriptor)),
        path_(std::move(path)),
        device_(device),
        inode_(inode) {}

  ZrDescriptor descriptor_;
  std::string path_;  // in the system's form, with a separator at its end
  std::uint64_t device_;
  std::uint64_t inode_;
};

namespace zr {

/// The system's form of a directory text that is stored with backslashes. This is the only place
/// where that form is turned; bytes of a request never come through here.
std::string SystemDirectory(std::string_view storedDirectory);

}  // namespace zr

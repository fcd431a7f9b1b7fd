// The bytes are written instead of stored into a mapping: a full disk is then an error of a call,
// while a store into a page that the disk has no room for would end the process.

#include "platform/spill_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace {

constexpr std::uint64_t kFreedAtOnce = 4 << 20;

int OpenNameless(const std::string& folder) {
  const int nameless = ::open(folder.c_str(), O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  if (nameless >= 0) return nameless;
  // Not every file system has files without a name.
  std::string name = folder + "/velkoro.XXXXXX";
  const int named = ::mkostemp(name.data(), O_CLOEXEC);
  if (named >= 0) ::unlink(name.c_str());
  return named;
}

}  // namespace

std::unique_ptr<ZrSpillFile> ZrSpillFile::Create() {
  const char* const wanted = ::getenv("TMPDIR");
  ZrDescriptor file;
  if (wanted != nullptr && *wanted == '/') file = ZrDescriptor(OpenNameless(wanted));
  if (!file.IsOpen()) file = ZrDescriptor(OpenNameless("/tmp"));
  if (!file.IsOpen()) return nullptr;
  return std::unique_ptr<ZrSpillFile>(new ZrSpillFile(std::move(file)));
}

// Piece by piece: the system takes a millisecond for each megabyte that goes, in which it neither
// looks for a thread that waits for the core nor lets one of this process have new memory.
ZrSpillFile::~ZrSpillFile() {
  for (std::uint64_t left = size_; left > 0;) {
    const std::uint64_t end = left;
    // From the end, at multiples of a page.
    left = (left - 1) / kFreedAtOnce * kFreedAtOnce;
    if (data_ != nullptr)
      ::munmap(const_cast<char*>(data_) + left, static_cast<std::size_t>(end - left));
    // What cannot be shortened goes with its descriptor.
    if (::ftruncate(descriptor_.Get(), static_cast<off_t>(left)) != 0) continue;
  }
}

bool ZrSpillFile::Append(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        ::pwrite(descriptor_.Get(), bytes.data(), bytes.size(), static_cast<off_t>(size_));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    size_ += static_cast<std::uint64_t>(count);
  }
  return true;
}

bool ZrSpillFile::Map() {
  if (size_ == 0) return true;
  void* const place = ::mmap(nullptr, static_cast<std::size_t>(size_), PROT_READ, MAP_PRIVATE,
                             descriptor_.Get(), 0);
  if (place == MAP_FAILED) return false;
  data_ = static_cast<const char*>(place);
  return true;
}

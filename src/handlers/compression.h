#pragma once
// Where bodies are compressed: on threads of its own that run when nobody else needs the processor,
// a bounded number at once and waiting, so that no other request waits for it. What was made of a
// file is kept for its version, the least recently used goes first; requests for one that is being
// made wait for it together.

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "handlers/cgi_runs.h"
#include "http/preferences.h"
#include "platform/file.h"
#include "platform/sync.h"

namespace zr {

/// Half of the cores: who reads a text waits for its compression, the others for nothing.
inline std::size_t DefaultCompressions() {
  return std::max<std::size_t>(1, std::thread::hardware_concurrency() / 2);
}

}  // namespace zr

/// The compressions of one application. Stop() comes before the clients and the scheduler go.
/// Threads: any.
class ZrCompression {
 public:
  /// What is kept of files, in bytes.
  static constexpr std::uint64_t kCacheBytes = std::uint64_t{32} << 20;
  /// While so many wait, others are not compressed.
  static constexpr std::size_t kMostWaiting = 64;

  using Bytes = std::shared_ptr<const std::string>;
  /// Gets the body in the coding; nothing: it is to be sent as it is. Called once, on the thread
  /// that asks when the bytes are at hand, else later on another one, with no lock held; not at all
  /// when the peer has gone.
  using Done = std::function<void(Bytes)>;

  explicit ZrCompression(ZrRinvalScheduler2& scheduler,
                         std::size_t most = zr::DefaultCompressions());
  ~ZrCompression() { Stop(); }
  ZrCompression(const ZrCompression&) = delete;
  ZrCompression& operator=(const ZrCompression&) = delete;

  /// The file in a coding. No, and `done` is not called: too many wait already.
  [[nodiscard]] bool OfFile(std::shared_ptr<const ZrFile> file, ZrCoding coding, const Done& done)
      ZR_EXCLUDES(lock_);
  /// A body in a coding, not kept; `done` holds what the bytes lie in. No as above.
  [[nodiscard]] bool OfBody(std::string_view bytes, ZrCoding coding,
                            std::shared_ptr<ZrPeerWatch> peer, Done done) ZR_EXCLUDES(lock_);
  /// What waits is sent as it is, what is being made is given up. Waits. May be called again.
  void Stop() { runs_.Stop(); }

 private:
  // A version of a file in a coding.
  struct Key {
    std::uint64_t device, node, size;
    std::int64_t modified;
    ZrCoding coding;
    auto operator<=>(const Key&) const = default;
  };
  struct Kept {
    Key key;
    Bytes bytes;  // none: the coding does not make it shorter
  };
  class Waiting;

  void Deliver(const Key& key, const Bytes& made, bool known) ZR_EXCLUDES(lock_);
  void Keep(const Key& key, const Bytes& bytes) ZR_REQUIRES(lock_);

  ZrMutex lock_;  // never held while calling out
  std::size_t waiting_ ZR_GUARDED_BY(lock_) = 0;
  std::map<Key, std::vector<Done>> underWay_ ZR_GUARDED_BY(lock_);
  std::list<Kept> kept_ ZR_GUARDED_BY(lock_);  // the latest used in front
  std::map<Key, std::list<Kept>::iterator> byKey_ ZR_GUARDED_BY(lock_);
  std::uint64_t keptBytes_ ZR_GUARDED_BY(lock_) = 0;
  ZrCgiRuns runs_;  // last: it ends the runs before what they use goes
};

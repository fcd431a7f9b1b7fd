#include "handlers/compression.h"

#include <utility>

#include "http/body_coding.h"
#include "platform/thread.h"

namespace {

// What one entry costs beside its bytes.
constexpr std::uint64_t kEntryBytes = 256;
constexpr std::size_t kReadSize = std::size_t{256} * 1024;

std::uint64_t Cost(const ZrCompression::Bytes& bytes) {
  return kEntryBytes + (bytes ? bytes->size() : 0);
}

// The work is for another thread: when the system has none left, this one does without.
bool IsForeign(std::thread::id asking) {
  if (asking == std::this_thread::get_id()) return false;
  zr::YieldToOthers();
  return true;
}

}  // namespace

/// A place among those that wait.
class ZrCompression::Waiting {
 public:
  explicit Waiting(ZrCompression& owner) : owner_(owner) {}
  ~Waiting() {
    ZrLock hold(owner_.lock_);
    --owner_.waiting_;
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

 private:
  ZrCompression& owner_;
};

ZrCompression::ZrCompression(ZrRinvalScheduler2& scheduler, std::size_t most)
    : runs_(scheduler, most) {}

bool ZrCompression::OfFile(std::shared_ptr<const ZrFile> file, ZrCoding coding, const Done& done) {
  const Key key{file->Device(), file->Node(), file->Size(), file->ModifiedNs(), coding};
  Bytes bytes;
  bool atHand = false;
  {
    ZrLock hold(lock_);
    if (const auto found = byKey_.find(key); found != byKey_.end()) {
      kept_.splice(kept_.begin(), kept_, found->second);
      bytes = found->second->bytes;
      atHand = true;
    } else if (const auto being = underWay_.find(key); being != underWay_.end()) {
      being->second.push_back(done);
      return true;
    } else {
      if (waiting_ >= kMostWaiting) return false;
      underWay_[key].push_back(done);
      ++waiting_;
    }
  }
  if (atHand) {
    done(std::move(bytes));
    return true;
  }
  auto place = std::make_shared<const Waiting>(*this);
  runs_.Submit([this, key, file = std::move(file), place = std::move(place),
                asking = std::this_thread::get_id()](const ZrWakeFlag& stop) {
    Bytes made;
    bool known = false;  // for other requests, too
    std::uint64_t at = 0;
    std::string piece;
    try {
      if (IsForeign(asking) && !stop.IsRaised()) {
        auto coded = zr::Compressed(
            key.coding, key.size,
            [&]() -> std::string_view {
              piece.resize(kReadSize);
              piece.resize(file->ReadAt(at, piece).value_or(0));
              at += piece.size();
              return piece;
            },
            [&stop] { return !stop.IsRaised(); });
        // A file that became shorter meanwhile is another version.
        const bool refused = !coded && !stop.IsRaised();
        if (coded && at == key.size) made = std::make_shared<const std::string>(*std::move(coded));
        known = made || refused;
      }
    } catch (const std::exception&) {
      // For want of memory they get it as it is.
    }
    Deliver(key, made, known);
  });
  return true;
}

void ZrCompression::Deliver(const Key& key, const Bytes& made, bool known) {
  decltype(underWay_)::node_type waited;
  {
    ZrLock hold(lock_);
    waited = underWay_.extract(key);
    if (known) Keep(key, made);
  }
  if (!waited) return;
  for (const Done& done : waited.mapped()) {
    try {
      done(made);
    } catch (const std::exception&) {
      // That answer is lost; the others are not.
    }
  }
}

void ZrCompression::Keep(const Key& key, const Bytes& bytes) {
  if (byKey_.contains(key)) return;
  kept_.push_front({key, bytes});
  byKey_.emplace(key, kept_.begin());
  keptBytes_ += Cost(bytes);
  while (keptBytes_ > kCacheBytes) {
    keptBytes_ -= Cost(kept_.back().bytes);
    byKey_.erase(kept_.back().key);
    kept_.pop_back();
  }
}

bool ZrCompression::OfBody(std::string_view bytes, ZrCoding coding,
                           std::shared_ptr<ZrPeerWatch> peer, Done done) {
  {
    ZrLock hold(lock_);
    if (waiting_ >= kMostWaiting) return false;
    ++waiting_;
  }
  auto place = std::make_shared<const Waiting>(*this);
  runs_.Submit(
      [bytes, coding, done = std::move(done), place = std::move(place),
       asking = std::this_thread::get_id()](const ZrWakeFlag& stop) {
        Bytes made;
        try {
          std::string_view rest = bytes;
          if (IsForeign(asking) && !stop.IsRaised()) {
            auto coded = zr::Compressed(
                coding, bytes.size(), [&rest] { return std::exchange(rest, {}); },
                [&stop] { return !stop.IsRaised(); });
            if (coded) made = std::make_shared<const std::string>(*std::move(coded));
          }
        } catch (const std::exception&) {
          // For want of memory it goes as it is.
        }
        done(std::move(made));
      },
      std::move(peer));
  return true;
}

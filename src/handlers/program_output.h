#pragma once
// What a program has written and its answer will send: small output on the heap, large output in a
// temporary file that is mapped when it is complete, so that it is held once and not on the heap.
// All of it counts against the memory budget of all peers until it was sent.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <span>

#include "base/memory_budget.h"
#include "base/string_buffer.h"
#include "handlers/program_sink.h"
#include "http/body_store.h"
#include "platform/sync.h"

/// The output of one run. Threads: one at a time.
class ZrProgramOutput : public ZrProgramSink {
 public:
  /// Without a budget it counts for nobody.
  explicit ZrProgramOutput(std::shared_ptr<ZrMemoryBudget> budget = nullptr);

  /// Whether all peers together hold so much that no more may be read now.
  bool MustWait() override { return budget_ && budget_->Exceeded(); }
  std::span<char> Prepare(std::size_t bytes) override { return latest_.Prepare(bytes); }
  /// No: the disk has no room, and the output is lost.
  [[nodiscard]] bool Commit(std::size_t bytes) override;
  /// The whole output as a buffer that counts for as long as it holds large bytes. Nothing when the
  /// system refused that. Called once.
  std::unique_ptr<ZrStringBuf> Finish();

 private:
  std::uint64_t Size() const { return latest_.Size() + (file_ ? file_->Size() : 0); }

  const std::shared_ptr<ZrMemoryBudget> budget_;
  ZrMemoryShare share_;
  ZrStringBuf latest_;  // all of it, or what is not in the file yet
  std::unique_ptr<ZrBodyStore> file_;
};

/// Who waits for room. Of those that have waited too long the newest is given up first, and its
/// room may be what the others wait for. Threads: any.
class ZrRoomQueue {
 public:
  /// One that may have to wait; the place is given up by the destructor. Threads: one at a time.
  class Place {
   public:
    /// Without a queue it is always the newest.
    explicit Place(ZrRoomQueue* queue);
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    void SetWaiting(bool waits);
    /// Whether no later one waits.
    bool IsNewest() const;

   private:
    ZrRoomQueue* const queue_;
    std::uint64_t number_ = 0;
    bool waits_ = false;
  };

 private:
  ZrMutex lock_;
  std::uint64_t last_ ZR_GUARDED_BY(lock_) = 0;
  std::set<std::uint64_t> waiting_ ZR_GUARDED_BY(lock_);
};

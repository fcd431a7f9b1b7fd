#include "handlers/program_output.h"

#include <utility>

namespace {

// Less than that is copied behind its head, or gone, before anybody could miss it in the budget.
constexpr std::uint64_t kWorthCounting = std::uint64_t{64} * 1024;

}  // namespace

ZrProgramOutput::ZrProgramOutput(std::shared_ptr<ZrMemoryBudget> budget)
    : budget_(std::move(budget)), share_(budget_) {}

bool ZrProgramOutput::Commit(std::size_t bytes) {
  latest_.Commit(bytes);
  share_.Set(Size());
  if (!file_ && latest_.Size() > ZrBodyStore::kHeapLimit) file_ = ZrBodyStore::InAFile();
  // Where no file can be made the heap has to do.
  return !file_ || file_->Take(latest_);
}

std::unique_ptr<ZrStringBuf> ZrProgramOutput::Finish() {
  if (Size() <= kWorthCounting) return std::make_unique<ZrStringBuf>(std::move(latest_));
  struct Counted {
    std::unique_ptr<ZrStringBuf> bytes;
    ZrMemoryShare share;
  };
  const auto counted = std::make_shared<Counted>();
  counted->bytes = file_ ? file_->Finish() : std::make_unique<ZrStringBuf>(std::move(latest_));
  counted->share = std::move(share_);
  if (!counted->bytes) return nullptr;
  return std::make_unique<ZrStringBuf>(counted->bytes->Unread(), counted);
}

ZrRoomQueue::Place::Place(ZrRoomQueue* queue) : queue_(queue) {
  if (queue_ == nullptr) return;
  ZrLock hold(queue_->lock_);
  number_ = ++queue_->last_;
}

ZrRoomQueue::Place::~Place() { SetWaiting(false); }

void ZrRoomQueue::Place::SetWaiting(bool waits) {
  if (waits == waits_ || queue_ == nullptr) return;
  waits_ = waits;
  ZrLock hold(queue_->lock_);
  if (waits)
    queue_->waiting_.insert(number_);
  else
    queue_->waiting_.erase(number_);
}

bool ZrRoomQueue::Place::IsNewest() const {
  if (queue_ == nullptr) return true;
  ZrLock hold(queue_->lock_);
  return queue_->waiting_.empty() || *queue_->waiting_.rbegin() <= number_;
}

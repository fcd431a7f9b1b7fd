#include "base/line_writer.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "base/printable.h"
#include "platform/io.h"

// A queue is two texts: lines are appended to the one while the other is being written, and the
// writer's thread swaps them. It sleeps in one poll for all sinks: until a line comes to a queue
// that was quiet, until a sink that was full takes some again, or until the pause behind a batch is
// over; a queue that has nothing at the end of its pause is quiet. So a line costs its maker a
// short lock, and only the first one behind a silence a wake-up.

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using Clock = ZrLineQueue::Clock;

constexpr milliseconds kStopLimit{1000};
constexpr std::chrono::seconds kKindWindow{1};
// Kinds may carry names; of those beyond it within a second none is told from the others.
constexpr std::size_t kMostKinds = 64;
// What is queued now is in the batch under way, in the next, or said by the notice behind it.
constexpr std::uint64_t kFlushBatches = 3;
// A text that grew beyond this under load gives its memory back.
constexpr std::size_t kKeptBytes = 256 * 1024;

std::uint64_t CountLines(std::string_view text) {
  return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

// ---- One queue: those who have lines -----------------------------------------------------------

ZrLineQueue::ZrLineQueue(ZrLineSink sink, std::string name)
    : name_(std::move(name)), sink_(std::move(sink)) {}

// Lines behind a lost one are lost as well until the batch is taken, so that the notice stands
// where they would.
bool ZrLineQueue::Add(std::string_view text, std::string_view end) {
  if (closed_) return false;
  if (lost_ > 0 || filling_.size() + text.size() + end.size() > kMostBytes) {
    lost_ += CountLines(text) + end.size();
    return false;
  }
  try {
    filling_.reserve(filling_.size() + text.size() + end.size());
  } catch (const std::exception&) {
    lost_ += CountLines(text) + end.size();
    return false;
  }
  filling_.append(text).append(end);
  return true;
}

bool ZrLineQueue::Push(std::string_view line) noexcept { return PushText(line, "\n"); }

bool ZrLineQueue::PushLines(std::string_view lines) noexcept { return PushText(lines, {}); }

bool ZrLineQueue::PushText(std::string_view text, std::string_view end) noexcept {
  bool wakes = false;
  bool added = false;
  {
    const ZrLock hold(lock_);
    const bool first = filling_.empty() && lost_ == 0;
    added = Add(text, end);
    wakes = NotesCrowd() || (first && !attended_);
  }
  if (wakes || !ZrLineWriter::Instance().Runs()) ZrLineWriter::Instance().Wake();
  return added;
}

void ZrLineQueue::PushOfKind(std::string_view kind, std::string_view line) noexcept try {
  {
    const ZrLock hold(lock_);
    const auto now = Clock::now();
    auto known = std::find_if(kinds_.begin(), kinds_.end(),
                              [kind](const Kind& one) { return one.name == kind; });
    if (known == kinds_.end() && kinds_.size() >= kMostKinds) {
      std::erase_if(kinds_, [now](Kind& one) { return now >= one.windowEnd && one.leftOut == 0; });
      known = kinds_.size() < kMostKinds ? kinds_.end() : kinds_.begin();
    }
    if (known == kinds_.end())
      known = kinds_.insert(kinds_.end(), Kind{std::string(kind), now + kKindWindow});
    if (now >= known->windowEnd) {
      AddLeftOut(*known);
      known->windowEnd = now + kKindWindow;
      known->written = 0;
    }
    if (known->written == kMostOfAKind) {
      if (known->leftOut++ > 0) return;
      kindsDue_ = std::min(kindsDue_, known->windowEnd);
    } else {
      ++known->written;
      kind = {};
    }
  }
  if (kind.empty())
    Push(line);
  else
    ZrLineWriter::Instance().Wake();  // it has a new time to keep
} catch (const std::exception&) {
  // No memory for a word about somebody's fault.
}

// Whether the writer is to be told, once for each batch, that this one does not wait for its time.
bool ZrLineQueue::NotesCrowd() {
  return filling_.size() >= kCrowdBytes && !std::exchange(crowded_, true);
}

void ZrLineQueue::AddLeftOut(Kind& kind) {
  if (kind.leftOut == 0) return;
  std::string line = "velkoro: " + std::to_string(kind.leftOut) + " more lines like \"";
  zr::AppendPrintable(line, kind.name);
  Add(line + "\" were left out", "\n");
  kind.leftOut = 0;
}

void ZrLineQueue::Replace(ZrLineSink sink) {
  {
    const ZrLock hold(lock_);
    nextSink_ = std::make_unique<ZrLineSink>(std::move(sink));
  }
  ZrLineWriter::Instance().Wake();
}

bool ZrLineQueue::Flush(milliseconds limit) {
  std::uint64_t awaited = 0;
  {
    const ZrLock hold(lock_);
    if (!IsPending()) return true;
    awaited = batches_ + kFlushBatches;
    ++flushing_;
  }
  const bool runs = ZrLineWriter::Instance().Wake();
  const ZrLock hold(lock_);
  const bool done = batchDone_.WaitFor(
      lock_, runs ? limit : milliseconds::zero(),
      [this, awaited]() ZR_REQUIRES(lock_) { return batches_ >= awaited || !IsPending(); });
  --flushing_;
  stuck_ = !done;
  return done;
}

// ---- One queue: the writer's thread ------------------------------------------------------------

// A sink that failed is tried again with the next line, not for the notice of lost ones alone.
bool ZrLineQueue::IsPending() const {
  return busy_ || !filling_.empty() || lost_ > 0 || (lostAhead_ > 0 && !failed_);
}

bool ZrLineQueue::IsIdle() {
  const ZrLock hold(lock_);
  return !IsPending() && kindsDue_ == Clock::time_point::max();
}

bool ZrLineQueue::IsStuck() {
  const ZrLock hold(lock_);
  return stuck_ && IsPending();
}

bool ZrLineQueue::IsQuiet() {
  const ZrLock hold(lock_);
  return !attended_ && !IsPending();
}

bool ZrLineQueue::IsClosed() {
  const ZrLock hold(lock_);
  return closed_;
}

void ZrLineQueue::Close() {
  const ZrLock hold(lock_);
  closed_ = true;
}

// The thread has ended: nobody reads what is its own.
void ZrLineQueue::GiveMemoryBack() {
  std::string().swap(writing_);
  std::string().swap(name_);
  const ZrLock hold(lock_);
  std::string().swap(filling_);
  std::vector<Kind>().swap(kinds_);
  nextSink_.reset();
}

// Writes what there is and the sink takes; returns when to look again without being woken.
Clock::time_point ZrLineQueue::Step(ZrPoller* poller, bool hurry) {
  TakeNextSink(poller);
  Clock::time_point next = Clock::time_point::max();
  while (written_ < writing_.size() || Take(hurry, next)) {
    TakeNextSink(poller);  // behind the taking: no line made after a Replace() goes to the old one
    const ZrLineSink::Result result = sink_.Write(std::string_view(writing_).substr(written_));
    written_ += result.count;
    if (result.status == ZrLineSink::Status::kBlocked) {
      if (!watched_ && poller != nullptr)
        watched_ = poller->Add(sink_.WaitDescriptor(), 0, ZrInterest::kWrite);
      // One that cannot be watched is asked again.
      return watched_ ? Clock::time_point::max() : Clock::now() + kPause;
    }
    Unwatch(poller);
    if (written_ > 0) midLine_ = writing_[written_ - 1] != '\n';
    EndBatch(result);
  }
  return next;
}

void ZrLineQueue::Unwatch(ZrPoller* poller) {
  if (std::exchange(watched_, false)) poller->Remove(sink_.WaitDescriptor());
}

// The next batch. No: there is none, or it is not its time; `next` says when.
bool ZrLineQueue::Take(bool hurry, Clock::time_point& next) {
  const auto now = Clock::now();
  const ZrLock hold(lock_);
  if (now >= kindsDue_ || hurry) {
    kindsDue_ = Clock::time_point::max();
    for (Kind& kind : kinds_) {
      if (now >= kind.windowEnd || hurry) AddLeftOut(kind);
      if (kind.leftOut > 0) kindsDue_ = std::min(kindsDue_, kind.windowEnd);
    }
  }
  next = kindsDue_;
  attended_ = now < nextBatch_ || IsPending();
  const bool early = now < nextBatch_ && !hurry && flushing_ == 0 && !crowded_;
  if (early || !IsPending()) {
    if (now < nextBatch_) next = std::min(next, nextBatch_);
    return false;
  }
  written_ = 0;
  writing_.clear();
  if (writing_.capacity() > kKeptBytes) writing_.shrink_to_fit();
  if (midLine_) writing_ = "\n";
  noticed_ = std::exchange(lostAhead_, 0);
  if (noticed_ > 0) {
    writing_ += "velkoro: " + std::to_string(noticed_) +
                (noticed_ == 1 ? " line was" : " lines were") + " lost here, nothing took them\n";
  }
  noticeBytes_ = writing_.size();
  if (noticeBytes_ == 0) {
    writing_.swap(filling_);
  } else {
    writing_ += filling_;
    filling_.clear();
  }
  lostAhead_ = std::exchange(lost_, 0);
  crowded_ = false;
  busy_ = true;
  nextBatch_ = now + kPause;
  return true;
}

// A line that the old sink has the first part of is lost; the whole ones behind it are not.
void ZrLineQueue::TakeNextSink(ZrPoller* poller) {
  std::unique_ptr<ZrLineSink> fresh;
  {
    const ZrLock hold(lock_);
    fresh = std::move(nextSink_);
  }
  if (!fresh) return;
  Unwatch(poller);
  sink_ = std::move(*fresh);
  if (written_ > 0 && written_ < writing_.size() && writing_[written_ - 1] != '\n') {
    written_ = std::min(writing_.find('\n', written_), writing_.size() - 1) + 1;
    const ZrLock hold(lock_);
    ++lostAhead_;
  }
  if (midLine_ && written_ == 0 && !writing_.empty()) written_ = 1;  // the end of that line
  midLine_ = false;
  saidFull_ = false;
}

void ZrLineQueue::EndBatch(const ZrLineSink::Result& result) {
  {
    const ZrLock hold(lock_);
    failed_ = result.status != ZrLineSink::Status::kTaken;
    if (written_ < noticeBytes_) lostAhead_ += noticed_;
    lostAhead_ += CountLines(std::string_view(writing_).substr(std::max(written_, noticeBytes_)));
    written_ = writing_.size();
    busy_ = false;
    ++batches_;
    stuck_ = false;
    batchDone_.NotifyAll();
  }
  if (result.status == ZrLineSink::Status::kTaken) saidFull_ = false;
  ZrLineQueue& errors = ZrLineWriter::Instance().Errors();
  if (result.status == ZrLineSink::Status::kFull && &errors != this && !saidFull_) {
    saidFull_ = true;
    errors.Push("velkoro: " + name_ + " takes no more lines: " + zr::SystemErrorText(result.error) +
                "; they are lost until it does");
  }
}

// ---- The thread --------------------------------------------------------------------------------

/// Ends the thread when the library is unloaded or the process exits.
struct ZrLineWriter::Holder {
  alignas(ZrLineWriter) static inline unsigned char storage[sizeof(ZrLineWriter)];
  static ZrLineWriter& Writer() { return *std::launder(reinterpret_cast<ZrLineWriter*>(storage)); }

  Holder() { new (storage) ZrLineWriter; }
  ~Holder() { Writer().Shutdown(); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
};

ZrLineWriter& ZrLineWriter::Instance() {
  static const Holder holder;
  return Holder::Writer();
}

ZrLineWriter::ZrLineWriter()
    : standardOutput_(ZrLineSink::StandardOutput(), "the standard output"),
      standardError_(ZrLineSink::StandardError(), "standard error") {
  // Without a count: they are part of this.
  for (ZrLineQueue* const queue : {&standardOutput_, &standardError_})
    queues_.emplace_back(std::shared_ptr<void>(), queue);
}

std::shared_ptr<ZrLineQueue> ZrLineWriter::Open(ZrLineSink sink, std::string name) {
  auto queue = std::make_shared<ZrLineQueue>(std::move(sink), std::move(name));
  const ZrLock hold(lock_);
  queues_.push_back(queue);
  return queue;
}

void ZrLineWriter::Close(ZrLineQueue& queue) {
  queue.Close();
  Wake();
}

bool ZrLineWriter::Wake() noexcept {
  try {
    const ZrLock hold(lock_);
    if (stopping_ || writesHere_) return false;
    if (!thread_.Joinable()) {
      if (!poller_) poller_ = std::make_unique<ZrPoller>();
      thread_ = ZrThread::Start("zr-lines", [this] { Loop(); });
      runs_ = true;
    }
    poller_->Wake();
    return true;
  } catch (const std::exception&) {
    // The system has no thread or no descriptors; it is asked again with the next line.
  }
  WriteHere();
  return false;
}

void ZrLineWriter::WriteHere() noexcept try {
  ZrPoller* poller = nullptr;
  Queues queues;
  {
    const ZrLock hold(lock_);
    if (std::exchange(writesHere_, true)) return;
    poller = poller_.get();
    queues = queues_;
  }
  for (const auto& queue : queues) queue->Step(poller, true);
  const ZrLock hold(lock_);
  writesHere_ = false;
} catch (const std::exception&) {
  const ZrLock hold(lock_);
  writesHere_ = false;
}

void ZrLineWriter::Loop() {
  ZrPoller* poller = nullptr;
  Clock::time_point stopBy = Clock::time_point::max();
  for (;;) {
    Queues queues;
    bool stopping = false;
    bool resting = false;
    {
      const ZrLock hold(lock_);
      poller = poller_.get();
      queues = queues_;
      stopping = stopping_;
      resting = resting_;
    }
    if (stopping) stopBy = std::min(stopBy, Clock::now() + kStopLimit);
    Clock::time_point next = stopBy;
    bool idle = true;
    for (const auto& queue : queues) {
      if (stopping) queue->Close();
      try {
        next = std::min(next, queue->Step(poller, stopping || resting));
      } catch (const std::exception&) {
        next = std::min(next, Clock::now() + ZrLineQueue::kPause);  // no memory for the moment
      }
      const bool done = queue->IsIdle();
      idle = idle && done;
      if (done && !stopping && queue->IsClosed()) {
        const ZrLock hold(lock_);
        std::erase(queues_, queue);
      }
    }
    const auto now = Clock::now();
    if ((stopping && (idle || now >= stopBy)) || (resting && idle)) {
      const ZrLock hold(lock_);
      ended_ = stopping_ || resting_;  // nobody may wait for it any more
      if (!ended_) continue;
      threadEnded_.NotifyAll();
      return;
    }
    const bool sleeps = next == Clock::time_point::max();
    poller->Wait(sleeps ? nanoseconds(-1) : std::max(nanoseconds::zero(), nanoseconds(next - now)));
  }
}

void ZrLineWriter::Rest() noexcept try {
  if (zr::IsForkOfThreads() || standardOutput_.IsStuck() || standardError_.IsStuck()) return;
  ZrThread thread;
  {
    const ZrLock hold(lock_);
    if (stopping_ || resting_ || !thread_.Joinable()) return;
    resting_ = true;
    poller_->Wake();
    const bool ended =
        threadEnded_.WaitFor(lock_, kStopLimit, [this]() ZR_REQUIRES(lock_) { return ended_; });
    resting_ = false;
    if (!ended || stopping_) return;
    ended_ = false;
    runs_ = false;
    thread = std::move(thread_);
    if (!writesHere_) poller_.reset();
  }
  thread.Join();
  // A line that came when the thread had looked for the last time has woken nobody.
  Queues queues;
  {
    const ZrLock hold(lock_);
    queues = queues_;
  }
  const auto idle = [](const auto& queue) { return queue->IsIdle(); };
  if (!std::all_of(queues.begin(), queues.end(), idle)) Wake();
} catch (const std::exception&) {
  // No memory to look: the thread stays.
}

// A forked child has no such thread, and may have the locks from threads that it has not either.
void ZrLineWriter::Shutdown() noexcept {
  if (zr::IsForkOfThreads()) return;
  ZrThread thread;
  {
    const ZrLock hold(lock_);
    stopping_ = true;
    if (poller_) poller_->Wake();
    thread = std::move(thread_);
    const auto ended = [this]() ZR_REQUIRES(lock_) { return ended_; };
    if (thread.Joinable() && ZrLineSink::MayBlock() &&
        !threadEnded_.WaitFor(lock_, kStopLimit + ZrLineQueue::kPause, ended)) {
      thread.Abandon();  // a terminal holds it up; its code stays loaded, its memory is this
      return;
    }
  }
  if (thread.Joinable())
    thread.Join();
  else
    WriteHere();  // what came when the thread rested
  standardOutput_.GiveMemoryBack();
  standardError_.GiveMemoryBack();
  Queues queues;  // go without the lock
  const ZrLock hold(lock_);
  poller_.reset();
  queues.swap(queues_);
}

// ---- The standard streams ----------------------------------------------------------------------

namespace zr {
namespace {

std::string Safe(std::string_view line) {
  std::string text;
  text.reserve(line.size());
  AppendPrintable(text, line);
  return text;
}

}  // namespace

bool WriteOutputLine(std::string_view line) noexcept {
  return ZrLineWriter::Instance().Output().Push(line);
}

void WriteOutputNotice(std::string_view line) noexcept {
  ZrLineWriter::Instance().Output().PushOfKind(line, line);
}

bool WriteErrorLine(std::string_view line) noexcept try {
  return ZrLineWriter::Instance().Errors().Push(Safe(line));
} catch (const std::exception&) {
  return false;
}

void WriteDiagnostic(std::string_view kind, std::string_view line) noexcept try {
  ZrLineWriter::Instance().Errors().PushOfKind(kind, Safe(line));
} catch (const std::exception&) {
  // No memory for a word about somebody's fault.
}

void FlushLines(milliseconds limit) noexcept {
  const auto deadline = Clock::now() + limit;
  for (ZrLineQueue* queue :
       {&ZrLineWriter::Instance().Output(), &ZrLineWriter::Instance().Errors()}) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    queue->Flush(std::max(left, milliseconds::zero()));
  }
}

}  // namespace zr

#pragma once
// Lines for the standard streams and for log files. Whoever has a line leaves it in the bounded
// queue of its sink and goes on; one thread of the process takes whole batches of lines from the
// queues and writes them, so lines of different threads are never torn and a sink that takes
// nothing holds nobody up. Such a sink loses the newest lines; how many stands in one line of their
// place once it takes some again. A full disk is said once on standard error.
//
// The first line of a quiet queue is written at once, those behind it at most 50 ms later in one
// write, or as soon as they are many; until a queue is quiet again the thread comes by itself, so
// lines that follow each other wake nobody. The thread starts with the first line and is joined
// when the last owner of jobs goes, the library is unloaded or the process exits, after at most a
// second for what is still queued. Where the system has no thread to give, whoever has a line
// writes what its sink takes at once.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/output.h"
#include "platform/poller.h"
#include "platform/sync.h"
#include "platform/thread.h"

/// The lines on their way to one sink. Threads: any.
class ZrLineQueue {
 public:
  using Clock = std::chrono::steady_clock;
  /// Beyond this many bytes lines are lost; as many more may be on their way to the sink.
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20;
  static constexpr std::chrono::milliseconds kPause{50};  ///< between two batches
  /// Ends the pause: lines that come fast are lost for want of a sink, never of time.
  static constexpr std::size_t kCrowdBytes = kMostBytes / 4;
  /// Of lines of one kind so many are written within a second.
  static constexpr int kMostOfAKind = 5;

  /// `name` is what a full disk is reported by. Made by ZrLineWriter::Open().
  ZrLineQueue(ZrLineSink sink, std::string name);

  /// Adds the line and a line end. No: it is lost.
  bool Push(std::string_view line) noexcept ZR_EXCLUDES(lock_);
  /// Adds a batch of lines, each with its line end: all of them or none.
  bool PushLines(std::string_view lines) noexcept ZR_EXCLUDES(lock_);
  /// Adds a line that somebody outside may cause again and again: beyond a few per second of a kind
  /// they are only counted, and one line says how many.
  void PushOfKind(std::string_view kind, std::string_view line) noexcept ZR_EXCLUDES(lock_);
  /// From the next batch on, lines go there. What the old sink has taken half of is not repeated.
  void Replace(ZrLineSink sink) ZR_EXCLUDES(lock_);
  /// Waits until what is queued now was written or lost. No: the limit came first.
  bool Flush(std::chrono::milliseconds limit) ZR_EXCLUDES(lock_);

  /// No pause lies ahead of it: its next line wakes the writer, which writes it at once.
  bool IsQuiet() ZR_EXCLUDES(lock_);

 private:
  friend class ZrLineWriter;
  struct Kind {
    std::string name;
    Clock::time_point windowEnd;
    int written = 0;
    std::uint64_t leftOut = 0;
  };

  bool PushText(std::string_view text, std::string_view end) noexcept ZR_EXCLUDES(lock_);
  bool Add(std::string_view text, std::string_view end) ZR_REQUIRES(lock_);
  bool NotesCrowd() ZR_REQUIRES(lock_);
  void AddLeftOut(Kind& kind) ZR_REQUIRES(lock_);

  // For the writer's thread alone.
  Clock::time_point Step(ZrPoller* poller, bool hurry) ZR_EXCLUDES(lock_);
  bool Take(bool hurry, Clock::time_point& next) ZR_EXCLUDES(lock_);
  void TakeNextSink(ZrPoller* poller) ZR_EXCLUDES(lock_);
  void EndBatch(const ZrLineSink::Result& result) ZR_EXCLUDES(lock_);
  void Unwatch(ZrPoller* poller);
  bool IsPending() const ZR_REQUIRES(lock_);
  bool IsIdle() ZR_EXCLUDES(lock_);
  bool IsStuck() ZR_EXCLUDES(lock_);
  bool IsClosed() ZR_EXCLUDES(lock_);
  void Close() ZR_EXCLUDES(lock_);
  void GiveMemoryBack() ZR_EXCLUDES(lock_);

  std::string name_;  // constant until the end
  ZrMutex lock_;      // held for an append or a swap
  std::string filling_ ZR_GUARDED_BY(lock_);
  std::uint64_t lost_ ZR_GUARDED_BY(lock_) = 0;       // lines behind those in filling_
  std::uint64_t lostAhead_ ZR_GUARDED_BY(lock_) = 0;  // lines before those of the next batch
  bool failed_ ZR_GUARDED_BY(lock_) = false;          // the last batch was lost
  std::vector<Kind> kinds_ ZR_GUARDED_BY(lock_);
  Clock::time_point kindsDue_ ZR_GUARDED_BY(lock_) = Clock::time_point::max();  // one is to be told
  std::unique_ptr<ZrLineSink> nextSink_ ZR_GUARDED_BY(lock_);
  bool crowded_ ZR_GUARDED_BY(lock_) = false;  // the next batch does not wait for its time
  bool stuck_ ZR_GUARDED_BY(lock_) = false;    // a Flush() was given up, and nothing went since
  int flushing_ ZR_GUARDED_BY(lock_) = 0;      // so many wait in Flush(): no pauses
  bool closed_ ZR_GUARDED_BY(lock_) = false;   // nobody adds any more
  bool busy_ ZR_GUARDED_BY(lock_) = false;     // a batch is being written
  // The thread comes by itself: at the end of a pause, or when the sink takes some again.
  bool attended_ ZR_GUARDED_BY(lock_) = false;
  std::uint64_t batches_ ZR_GUARDED_BY(lock_) = 0;  // written or lost so far
  ZrCondition batchDone_;                           // batches_ grew, or busy_ fell

  // The writer's thread.
  ZrLineSink sink_;
  std::string writing_;
  std::size_t written_ = 0;      // bytes of writing_ that the sink has taken
  std::uint64_t noticed_ = 0;    // the number that the first line of writing_ says
  std::size_t noticeBytes_ = 0;  // what stands in writing_ before the first line of somebody's
  bool midLine_ = false;         // the sink has the first part of a line whose rest was lost
  bool saidFull_ = false;
  bool watched_ = false;  // the poller tells when the sink takes some again
  Clock::time_point nextBatch_;
};

/// The thread that writes, and the queues that it serves. It is never destroyed, as a host may exit
/// while its threads go on; lines that come later are lost, and what it holds is given back.
/// Threads: any.
class ZrLineWriter {
 public:
  ZrLineWriter(const ZrLineWriter&) = delete;
  ZrLineWriter& operator=(const ZrLineWriter&) = delete;

  static ZrLineWriter& Instance();

  ZrLineQueue& Output() { return standardOutput_; }
  ZrLineQueue& Errors() { return standardError_; }
  /// A queue of its own for that sink.
  std::shared_ptr<ZrLineQueue> Open(ZrLineSink sink, std::string name) ZR_EXCLUDES(lock_);
  /// Nobody adds to it any more; it goes when its lines are written.
  void Close(ZrLineQueue& queue) ZR_EXCLUDES(lock_);
  /// Ends the thread when it has written what there is, within a second; the next line brings it
  /// back. It stays where a standard stream takes nothing, as the last Flush() has found out. For
  /// the end of what has used the library, so that a host keeps no thread of ours.
  void Rest() noexcept ZR_EXCLUDES(lock_);

 private:
  friend class ZrLineQueue;
  struct Holder;
  using Queues = std::vector<std::shared_ptr<ZrLineQueue>>;

  ZrLineWriter();
  ~ZrLineWriter() = delete;
  bool Runs() const noexcept { return runs_.load(std::memory_order_relaxed); }
  bool Wake() noexcept ZR_EXCLUDES(lock_);
  void WriteHere() noexcept ZR_EXCLUDES(lock_);
  void Loop() ZR_EXCLUDES(lock_);
  void Shutdown() noexcept ZR_EXCLUDES(lock_);

  ZrLineQueue standardOutput_;
  ZrLineQueue standardError_;
  ZrMutex lock_;  // taken behind no other, and never with a queue's
  Queues queues_ ZR_GUARDED_BY(lock_);
  std::unique_ptr<ZrPoller> poller_ ZR_GUARDED_BY(lock_);  // made before the thread, goes after it
  ZrThread thread_ ZR_GUARDED_BY(lock_);
  std::atomic<bool> runs_{false};                 // it could be started
  bool writesHere_ ZR_GUARDED_BY(lock_) = false;  // somebody does what the thread would
  bool stopping_ ZR_GUARDED_BY(lock_) = false;
  bool resting_ ZR_GUARDED_BY(lock_) = false;  // the thread is to end when it is idle
  bool ended_ ZR_GUARDED_BY(lock_) = false;    // it does nothing any more
  ZrCondition threadEnded_;                    // ended_ was set
};

namespace zr {

/// One line on standard output, as it is. No: it is lost.
bool WriteOutputLine(std::string_view line) noexcept;
/// The same for what a request or a program can cause: a few per second.
void WriteOutputNotice(std::string_view line) noexcept;
/// One line on standard error; control bytes in it come as \xHH.
bool WriteErrorLine(std::string_view line) noexcept;
/// The same for what a peer, a program or a document can cause: a few per second of a kind.
void WriteDiagnostic(std::string_view kind, std::string_view line) noexcept;
/// Waits until the lines for the standard streams are written, at most that long for both.
void FlushLines(std::chrono::milliseconds limit) noexcept;

}  // namespace zr

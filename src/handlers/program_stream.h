#pragma once
// The answer of a program in standard semantics (RFC 3875, 6): its head is read as it comes, and
// what follows is sent as it is written, a few pieces in memory at a time. A program that has ended
// a moment after its head is answered in one piece, with its length. Nothing is sent before the
// head is known to be one, so that whatever is wrong until then gets a proper answer.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/string_buffer.h"
#include "handlers/pipe_exec.h"
#include "handlers/program_sink.h"
#include "http/fwd.h"
#include "http/program_answer.h"
#include "platform/pipe.h"
#include "transceiver/answer_stream.h"

class ZrTransceiverClient;

class ZrProgramStream : public ZrProgramSink {
 public:
  /// A page that is complete within that time after its head, and no larger than that, is sent with
  /// its length.
  static constexpr std::chrono::milliseconds kGatherTime{20};
  static constexpr std::size_t kGatherBytes = std::size_t{64} * 1024;
  /// A run that takes longer is a long one, whether it has written anything or not.
  static constexpr std::chrono::milliseconds kLongTime{1000};
  /// So is one that waits for a slow client after that time.
  static constexpr std::chrono::milliseconds kInputTime{100};

  /// Made when the run starts. Client and request outlive it. `isLong` is called once when the run
  /// turns out to be a long one.
  ZrProgramStream(ZrTransceiverClient& client, const ZrXHeader& request,
                  std::function<void()> isLong);
  ~ZrProgramStream() override;

  bool MustWait() override;
  int RoomDescriptor() const override { return room_->Descriptor(); }
  std::span<char> Prepare(std::size_t bytes) override { return buffer_.Prepare(bytes); }
  [[nodiscard]] bool Commit(std::size_t bytes) override;
  std::optional<std::chrono::steady_clock::time_point> Due() const override { return due_; }
  void OnTime() override;

  /// Whether anything was sent.
  bool Begun() const { return stream_ != nullptr; }
  /// The run has ended that way: the request is answered, or its answer ended, before this returns;
  /// but for a local redirect, whose address is returned and is to be served. Called once.
  /// `refusal` is the status for a request whose body did not come.
  std::string Finish(ZrPipeExecEnd end, std::uint64_t refusal);
  /// Its input is still to come: after kInputTime it is a long one, whatever it has written.
  void AwaitInput() { due_ = longAt_ = std::chrono::steady_clock::now() + kInputTime; }

 private:
  enum class State {
    kHead,      // buffer_ has the head as far as it has come
    kGather,    // ... what follows the head; it might be all
    kStream,    // sent as it comes
    kRedirect,  // another page is the answer: the rest means nothing
    kOver,      // nobody needs the rest
    kBad,       // it was no head
  };

  bool TakeHead();
  void Begin();
  void Pass();
  void SendWhole();

  ZrTransceiverClient& client_;
  const ZrXHeader& request_;
  const std::function<void()> isLong_;
  const std::shared_ptr<ZrWakeFlag> room_ = std::make_shared<ZrWakeFlag>();
  State state_ = State::kHead;
  ZrStringBuf buffer_;
  std::size_t scanned_ = 0;  // of the head, for its end
  ZrProgramAnswer program_;
  std::shared_ptr<ZrXResponseHeader> answer_;  // once the head is known
  std::unique_ptr<ZrAnswerStream> stream_;
  // When it is a long run; none once that was said.
  std::optional<std::chrono::steady_clock::time_point> longAt_ =
      std::chrono::steady_clock::now() + kLongTime;
  std::optional<std::chrono::steady_clock::time_point> due_ = longAt_;
};

#include "handlers/pipe_exec.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "base/line_writer.h"

namespace {

using std::chrono::steady_clock;

// One read or write moves at most what a pipe holds.
constexpr std::size_t kChunk = 65536;
// How often the child's end is looked for where the system cannot report it.
constexpr std::chrono::milliseconds kEndPollInterval{10};
// How often a run that waits for room looks again: it shares the budget with all connections, whose
// bytes go as their peers read.
constexpr std::chrono::milliseconds kRoomPollInterval{50};
// A killed process ends at once unless the system itself holds it; then it is left to the system.
constexpr std::chrono::milliseconds kKillLimit{1000};
// So long others than the child may take to end when they are killed.
constexpr std::chrono::milliseconds kPipePatience{20};
// Exit codes of children that a signal ended.
constexpr int kSignalled = 128;
constexpr int kLastSignal = 64;

/// Creates one pipe and makes the end that stays here never block. An end that would block could
/// hold the run up, so it is given up like one that was not created.
void MakeRunPipe(zr::Pipe& pipe, ZrDescriptor zr::Pipe::*kept, const char* pipeMessage,
                 const char* endMessage) {
  if (zr::MakePipe(pipe)) zr::WriteOutputNotice(pipeMessage);
  if (zr::SetNonBlocking((pipe.*kept).Get())) {
    zr::WriteOutputNotice(endMessage);
    pipe = {};
  }
}

/// Wakes a run when its peer goes, or ends its side.
class PeerSignal {
 public:
  explicit PeerSignal(const std::shared_ptr<ZrPeerWatch>& peer) {
    if (!peer) return;
    flag_ = std::make_shared<ZrWakeFlag>();
    const auto raise = [flag = flag_] { flag->Raise(); };
    ended_ = ZrPeerSubscription(peer, raise, ZrPeerWatch::State::kEnded);
    gone_ = ZrPeerSubscription(peer, raise);
    if (gone_.Ended()) raise();
  }

  int Descriptor() const { return flag_ ? flag_->Descriptor() : -1; }
  /// After a wake: yes, it has gone; else it has ended its side.
  bool TakeGone() {
    flag_->Lower();  // first: what comes meanwhile wakes again
    return gone_.Gone();
  }

 private:
  std::shared_ptr<ZrWakeFlag> flag_;  // the actions may outlast this
  ZrPeerSubscription ended_;
  ZrPeerSubscription gone_;
};

}  // namespace

ZrWinPipeExec::ZrWinPipeExec(std::string program, ZrPipeExecSettings settings)
    : program_(std::move(program)), settings_(std::move(settings)) {
  zr::Pipe output;
  MakeRunPipe(output, &zr::Pipe::read, "ERROR StdoutRd CreatePipe",
              "ERROR Stdout SetHandleInformation");
  stdoutRead_ = std::move(output.read);
  stdoutWrite_ = std::move(output.write);
  zr::Pipe input;
  MakeRunPipe(input, &zr::Pipe::write, "ERROR Stdin CreatePipe",
              "ERROR Stdin SetHandleInformation");
  stdinRead_ = std::move(input.read);
  stdinWrite_ = std::move(input.write);
}

ZrWinPipeExec::~ZrWinPipeExec() {
  if (process_.IsHeld()) EndFamily();
}

ZrPipeExecEnd ZrWinPipeExec::Run(const ZrCgiVariables& variables, ZrStringBuf& input,
                                 ZrStringBuf& output) {
  ZrRoomQueue::Place room(settings_.roomQueue);  // held until what was written is released
  ZrProgramOutput written(settings_.memory);
  const ZrPipeExecEnd end = RunTo(variables, input, written, room);
  if (end == ZrPipeExecEnd::kNotStarted || end == ZrPipeExecEnd::kLost) return end;
  const std::unique_ptr<ZrStringBuf> all = written.Finish();
  if (!all) return ZrPipeExecEnd::kLost;
  if (output.Empty())
    output = std::move(*all);
  else
    output.Append(all->Unread());
  return end;
}

ZrPipeExecEnd ZrWinPipeExec::Run(const ZrCgiVariables& variables, ZrStringBuf& input,
                                 ZrProgramSink& output) {
  ZrRoomQueue::Place room(settings_.roomQueue);
  return RunTo(variables, input, output, room);
}

ZrPipeExecEnd ZrWinPipeExec::RunTo(const ZrCgiVariables& variables, ZrStringBuf& input,
                                   ZrProgramSink& output, ZrRoomQueue::Place& room) {
  if (!Start(variables)) {
    zr::WriteOutputNotice("Error on CreateProcess");
    return ZrPipeExecEnd::kNotStarted;
  }
  const ZrPipeExecEnd end = Move(input, output, room);
  if (end != ZrPipeExecEnd::kEnded) {
    EndFamily();
    return end;
  }
  const std::optional<int> code = process_.Collect();
  return code && *code > kSignalled && *code <= kSignalled + kLastSignal ? ZrPipeExecEnd::kCrashed
                                                                         : end;
}

bool ZrWinPipeExec::Start(const ZrCgiVariables& variables) {
  ZrEnvironment environment =
      settings_.environment != nullptr ? *settings_.environment : ZrEnvironment::OfThisProcess();
  for (const auto& [name, value] : variables) environment.Set(name, value);
  ZrProcessStart start;
  start.program = program_;
  start.environment = &environment;
  start.standardInput = stdinRead_.Get();
  start.standardOutput = stdoutWrite_.Get();
  const ZrDescriptor errors = settings_.streams ? zr::StandardErrorCopy() : ZrDescriptor();
  start.standardError = settings_.streams ? errors.Get() : stdoutWrite_.Get();
  const bool started = !process_.Start(start);
  // The child's ends are its own now: only without copies here does a pipe end with the child.
  stdinRead_.Close();
  stdoutWrite_.Close();
  return started;
}

ZrPipeExecEnd ZrWinPipeExec::Move(ZrStringBuf& input, ZrProgramSink& output,
                                  ZrRoomQueue::Place& room) {
  PeerSignal peer(settings_.peer);
  auto runEnd = steady_clock::now() + settings_.limits.run;
  auto quietEnd = steady_clock::time_point::max();   // nearer once the peer has ended its side
  std::optional<steady_clock::time_point> drainEnd;  // set once the child has ended
  std::size_t left = settings_.limits.output;
  const bool reportsEnd = process_.EndDescriptor() >= 0;
  bool waits = false;  // for room, since then
  steady_clock::time_point waitsSince;

  while (!drainEnd || stdoutRead_.IsOpen()) {
    if (!TakeInput(input)) return ZrPipeExecEnd::kNoInput;
    // Closed at once when there is nothing (more) to deliver: the child then reads its end.
    if (input.Empty() && settings_.source == nullptr) stdinWrite_.Close();
    const bool waited = std::exchange(waits, output.MustWait());
    if (waits && !waited) waitsSince = steady_clock::now();
    room.SetWaiting(waits);
    enum { kOutput, kInput, kMore, kEnd, kStop, kPeer, kRoom, kItems };
    std::array<zr::PollItem, kItems> items;
    items[kOutput].descriptor = waits ? -1 : stdoutRead_.Get();
    items[kInput] = {input.Empty() ? -1 : stdinWrite_.Get(), true};
    const bool waitsForMore = settings_.source != nullptr && input.Empty();
    items[kMore].descriptor = waitsForMore ? settings_.source->Descriptor() : -1;
    items[kEnd].descriptor = drainEnd ? -1 : process_.EndDescriptor();
    items[kStop].descriptor = settings_.stop != nullptr ? settings_.stop->Descriptor() : -1;
    items[kPeer].descriptor = peer.Descriptor();
    items[kRoom].descriptor = waits ? output.RoomDescriptor() : -1;

    auto deadline = drainEnd ? std::min(*drainEnd, runEnd) : std::min(quietEnd, runEnd);
    if (!drainEnd && !reportsEnd)
      deadline = std::min(deadline, steady_clock::now() + kEndPollInterval);
    if (waits && items[kRoom].descriptor < 0)
      deadline = std::min(deadline, steady_clock::now() + kRoomPollInterval);
    const auto due = output.Due();
    if (due) deadline = std::min(deadline, *due);
    if (const auto late = waitsForMore ? settings_.source->Due() : std::nullopt)
      deadline = std::min(deadline, *late);
    zr::PollDescriptors(items, deadline);

    if (items[kStop].ready || (items[kPeer].ready && peer.TakeGone()))
      return ZrPipeExecEnd::kStopped;
    std::optional<ZrPipeExecEnd> over;
    if (items[kInput].ready) over = Deliver(input);
    if (over) return *over;
    // A limit is looked at in every round: who writes for ever always has something ready.
    const auto now = steady_clock::now();
    const bool moved = waits || items[kInput].ready || items[kMore].ready || items[kOutput].ready;
    if (settings_.streams && moved) runEnd = now + settings_.limits.run;
    if (items[kPeer].ready || (moved && quietEnd != steady_clock::time_point::max()))
      quietEnd = now + settings_.limits.endedPeer;
    if (items[kEnd].ready || (!drainEnd && !reportsEnd && process_.HasEnded())) {
      drainEnd = now + settings_.limits.drain;
      // All the child wrote is in the pipe now and is read without a look at the time; one byte
      // more asks at the same time whether the pipe has ended.
      over = Collect(output, left, zr::PendingBytes(stdoutRead_.Get()) + 1);
    } else if (items[kOutput].ready) {
      over = Collect(output, left, kChunk);
    }
    if (over) return *over;
    if (due && now >= *due) output.OnTime();
    if (waits && !settings_.streams && now - waitsSince >= settings_.limits.room && room.IsNewest())
      return ZrPipeExecEnd::kLost;
    if (!drainEnd && now >= std::min(quietEnd, runEnd)) return ZrPipeExecEnd::kRunLimit;
    if (drainEnd && now >= std::min(*drainEnd, runEnd)) break;
  }
  return ZrPipeExecEnd::kEnded;
}

// Fetches more when the child has taken what came before. No: the rest will not come.
bool ZrWinPipeExec::TakeInput(ZrStringBuf& input) {
  while (input.Empty() && settings_.source != nullptr) {
    switch (settings_.source->Take(input)) {
      case ZrProgramSource::Next::kSome:
        if (!stdinWrite_.IsOpen()) input.Clear();
        break;
      case ZrProgramSource::Next::kWait:
        return true;
      case ZrProgramSource::Next::kEnd:
        settings_.source = nullptr;
        break;
      case ZrProgramSource::Next::kFailed:
        return false;
    }
  }
  return true;
}

// Gives the child what its pipe takes; the end of the run when that failed.
std::optional<ZrPipeExecEnd> ZrWinPipeExec::Deliver(ZrStringBuf& input) {
  const zr::PipeTransfer moved = zr::WritePipe(stdinWrite_.Get(), input.Unread().substr(0, kChunk));
  input.Consume(moved.count);
  if (moved.result == zr::PipeResult::kFailed) return ZrPipeExecEnd::kLost;
  if (moved.result == zr::PipeResult::kClosed) {
    // The child has stopped reading; the rest is its own loss, and no reason to end it.
    stdinWrite_.Close();
    input.Clear();
  }
  return std::nullopt;
}

// Reads until `wanted` bytes have come or nothing more is there; the end of the run when the child
// wrote beyond the limit or more than can be kept. `left` is what the limit still allows.
std::optional<ZrPipeExecEnd> ZrWinPipeExec::Collect(ZrProgramSink& output, std::size_t& left,
                                                    std::size_t wanted) {
  while (stdoutRead_.IsOpen() && wanted > 0) {
    const std::size_t size =
        settings_.streams ? kChunk : std::min(kChunk, std::max<std::size_t>(left, 1));
    const zr::PipeTransfer moved = zr::ReadPipe(stdoutRead_.Get(), output.Prepare(size));
    if (moved.result == zr::PipeResult::kBlocked) break;
    if (moved.result == zr::PipeResult::kFailed) return ZrPipeExecEnd::kLost;
    if (moved.result == zr::PipeResult::kClosed) {
      stdoutRead_.Close();
      break;
    }
    if (left == 0 && !settings_.streams) return ZrPipeExecEnd::kOutputLimit;
    if (!output.Commit(moved.count)) return ZrPipeExecEnd::kLost;
    left -= std::min(left, moved.count);
    wanted -= std::min(wanted, moved.count);
  }
  return std::nullopt;
}

// Asks the child with all that stem from it to end, then ends them. They are signalled while the
// child is not yet collected: until then the group's number cannot become another's. A pipe that is
// still held afterwards leads to those that left the family.
void ZrWinPipeExec::EndFamily() {
  process_.Terminate();
  process_.WaitForEnd(steady_clock::now() + settings_.limits.terminationGrace);
  process_.Kill();
  if (process_.WaitForEnd(steady_clock::now() + kKillLimit))
    process_.Collect();
  else
    process_.Abandon();
  stdinWrite_.Close();
  if (zr::HasWriter(stdoutRead_.Get(), kPipePatience)) zr::KillHoldersOf(stdoutRead_.Get());
}

#pragma once
// System calls that fail on request. A test program that links this has the calls of src/platform/,
// the starts of threads and memory itself led through here by the linker (--wrap): what is tested
// are the very objects that are shipped, and they have no hook in them.

#include <cstddef>
#include <string>

namespace zrtest {

enum class Call {
  kSocket,
  kBind,
  kListen,
  kAccept,
  kConnect,
  kSetOption,
  kGetOption,
  kOwnName,
  kPeerText,
  kSend,
  kSendFile,
  kReceive,
  kRead,
  kWrite,
  kReadAt,
  kWriteAt,
  kResize,
  kMap,
  kOpen,
  kStatus,
  kLook,
  kPipe,
  kControl,
  kEvent,
  kPollerMake,
  kPollerChange,
  kPollerWait,
  kPoll,
  kSpawn,
  kWaitChild,
  kSystem,
  kThread,
  kSync,
  kRename,
  kMemory
};

/// Instead of an error number: the call succeeds, with one byte.
inline constexpr int kOneByte = -1;

/// One call of that kind fails: the n-th that a thread makes which is not exempt, from now on.
void Arm(Call call, int error, std::size_t n);
/// No further call fails. Whether one had.
bool Disarm();

/// Calls of this thread neither count nor fail while it lives: the test's own.
class Exempt {
 public:
  Exempt();
  ~Exempt();
  Exempt(const Exempt&) = delete;
  Exempt& operator=(const Exempt&) = delete;
};

}  // namespace zrtest

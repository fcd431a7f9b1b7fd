#include "platform/clock.h"

#include <time.h>

#include <new>

namespace {

// clock_gettime() cannot fail for these two clocks; both are read without entering the kernel.
std::int64_t Read(clockid_t clock, std::int64_t unitsPerSecond) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * unitsPerSecond + now.tv_nsec / (1'000'000'000 / unitsPerSecond);
}

class SystemClock final : public ZrClock {
 public:
  std::int64_t MonotonicNs() const override { return Read(CLOCK_MONOTONIC, 1'000'000'000); }
  std::int64_t SystemTicks() const override { return Read(CLOCK_REALTIME, 10'000'000); }
};

}  // namespace

const ZrClock& ZrClock::System() noexcept {
  // In place and without a destructor call at exit.
  alignas(SystemClock) static unsigned char storage[sizeof(SystemClock)];
  static const SystemClock* const clock = new (storage) SystemClock;
  return *clock;
}

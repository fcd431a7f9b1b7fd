#pragma once
// A bounded wait for a condition that no one announces: the only place where tests look again.

#include <chrono>

#include "platform/sync.h"

namespace zrtest {

/// Asks until the condition holds; false when it still does not after the limit.
template <class Condition>
bool WaitFor(Condition holds, std::chrono::seconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  ZrMutex mutex;
  ZrCondition never;
  ZrLock hold(mutex);
  while (!holds()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    never.WaitFor(mutex, std::chrono::milliseconds(2), [] { return false; });
  }
  return true;
}

}  // namespace zrtest

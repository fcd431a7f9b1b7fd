#pragma once
// The library as the loader sees it: what keeps the code in memory while it is needed. In a program
// that holds the code itself there is nothing to keep.

#if defined(__clang__)
#define ZR_ENDS_IN_CALL
#define ZR_LAST_CALL [[clang::musttail]]
#else
#define ZR_ENDS_IN_CALL \
  __attribute__((noinline, optimize("O2"), no_sanitize("address,thread,undefined")))
#define ZR_LAST_CALL
#endif

namespace zr {

/// Keeps this library loaded until the reference is given back, whatever its host unloads
/// meanwhile. Null when there is nothing to keep, or no reference to be had. Threads: any.
void* HoldLibrary() noexcept;

/// Gives a reference back, also a null one; 0. The library may be gone by then: the caller is
/// marked ZR_ENDS_IN_CALL, calls this as the last thing it does, by `ZR_LAST_CALL return`, and has
/// nothing left to destroy, so that the call ends where the caller would have returned to.
/// The sanitizers' own code stands in the way of that, so they have no part in such a function.
int ReleaseLibrary(void* reference);

/// Keeps this library loaded for good. No: it cannot be brought about. Threads: any.
bool StayLoaded() noexcept;

}  // namespace zr

#pragma once
// Starting a program that lives on its own, such as the user's browser.

#include <string>
#include <string_view>
#include <vector>

namespace zr {

/// Starts a program by argument vector, never through a shell. Its standard streams are the null
/// device, no descriptor of this process is passed on, its signals are the default ones, and it is
/// nobody's child here, so nothing is left to reap when it ends. A name without "/" is looked up on
/// PATH; `arguments` are those after argument 0. Returns whether the program runs; returns once
/// that is known. Threads: any; safe beside other threads.
bool StartDetachedProgram(std::string_view program, const std::vector<std::string>& arguments);

}  // namespace zr

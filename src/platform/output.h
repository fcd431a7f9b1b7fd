#pragma once
// Lines on the process's standard streams. They go past the C and C++ stream buffers in one write
// each, so lines of different threads are never torn. A reader that went away costs the line, never
// the process: no SIGPIPE is raised. EINTR is retried; a stream that takes nothing for two seconds
// loses the line, so a stuck terminal cannot stop the server. Threads: any.

#include <string_view>

namespace zr {

/// Writes the text and a line end to standard output. False when it was lost or cut.
bool WriteOutputLine(std::string_view text) noexcept;
/// Writes the text and a line end to standard error.
bool WriteErrorLine(std::string_view text) noexcept;
/// Writes the text as it is to standard output, in one call; for several lines at once.
bool WriteOutput(std::string_view text) noexcept;

}  // namespace zr

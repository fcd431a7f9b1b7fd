#pragma once
// Points in time as text for log lines.

#include <cstdint>
#include <string>
#include <string_view>

namespace zr {

/// A time in the local zone with the 24 characters of the C library's ctime, without a line end,
/// such as "Thu Nov 19 04:12:00 2026"; names are English in every locale. A time beyond the
/// calendar gives the text of the epoch. Threads: any; a thread that asks for the same second again
/// pays for a copy only.
std::string LocalTimeText(std::int64_t secondsSince1970);
/// The same where the thread keeps it: until the thread asks again.
std::string_view LocalTime(std::int64_t secondsSince1970);

}  // namespace zr

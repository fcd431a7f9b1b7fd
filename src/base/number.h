#pragma once
// Numbers in text, independent of the host program's locale.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zr {

/// Digits only, the whole text, no sign and no blank; nothing when it is anything else or does not
/// fit 64 bits.
std::optional<std::uint64_t> ParseDigits(std::string_view text);

/// An unsigned number of 32 bits at the start of the text: leading blanks and one sign are skipped
/// over ("-" negates modulo 2^32), reading stops at the first character that is no digit.
/// Throws std::invalid_argument "invalid stoul argument" when there is no digit and
/// std::out_of_range "stoul argument out of range" beyond 32 bits.
std::uint32_t ParseUnsignedLong(std::string_view text);

/// A floating-point number at the start of the text as the C locale writes it: leading blanks and
/// one sign, decimal or "0x" hexadecimal digits, "inf" or "nan"; what follows is not looked at.
/// Throws std::invalid_argument "invalid stod argument" when there is no number and
/// std::out_of_range "stod argument out of range" beyond a double's range.
double ParseDouble(std::string_view text);

/// A decimal integer at the start of the text: leading blanks and one sign are accepted, what
/// follows is not looked at. Nothing when there is no digit or 64 bits are not enough.
std::optional<std::int64_t> ParseLeadingInteger(std::string_view text);

/// A number as "%g" writes it in the C locale: six significant digits, general notation.
std::string FormatGeneral(double value);

}  // namespace zr

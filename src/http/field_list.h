#pragma once
// Fields whose value is a list of elements between commas (RFC 9110, 5.6.1). Several fields of one
// name are one list.

#include <string>
#include <string_view>

#include "http/header_fields.h"

namespace zr {

/// The text compared with one in lower case, as ASCII.
bool EqualsIgnoringCase(std::string_view text, std::string_view lower);
/// The text in lower case, as ASCII.
std::string LowerCase(std::string_view text);
/// The text without blanks (space and tab) at either end.
std::string_view TrimBlanks(std::string_view text);

/// Calls `visit` with every element of the values, without the blanks around it, empty ones
/// included, until one gets no for an answer. Whether none did.
template <class Visit>
bool AllListElements(const ZrHeaderFields::Values& values, Visit visit) {
  for (std::string_view rest : values) {
    for (;;) {
      const std::size_t comma = rest.find(',');
      if (!visit(TrimBlanks(rest.substr(0, comma)))) return false;
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return true;
}

/// Whether one of the elements is that text, given in lower case.
bool HasListElement(const ZrHeaderFields::Values& values, std::string_view lower);

}  // namespace zr

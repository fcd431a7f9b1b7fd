#pragma once
// The named-value table: texts that the server answers under their names.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

/// One named value. A copy of the record copies its texts.
struct ZrNamedValue {
  std::string text;
  std::optional<std::string> attached;  // takes the text's place when it is there
  std::string note;                     // free for the program that fills the table
  std::uint32_t number = 0;             // likewise; FindVariable() answers it

  const std::string& Content() const { return attached ? *attached : text; }
};

/// Ordered byte-wise by name.
using ZrNamedValueTable = std::map<std::string, ZrNamedValue, std::less<>>;

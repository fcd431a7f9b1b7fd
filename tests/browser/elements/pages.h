#pragma once
// The pages of the example, built from element classes.

#include <string>
#include <string_view>

namespace forms {

/// Text from a visitor made safe to show: documents write texts and values as they are, so whoever
/// puts a stranger's words into a page replaces what would be markup.
std::string Escaped(std::string_view text);

/// The start page: two forms, a draggable box, lamps that light one after another, and a part that
/// a script adds.
std::string StartPage();

/// A page with a heading, a text (markup, already safe) and a link that sends a command.
std::string MessagePage(const std::string& heading, const std::string& message,
                        const std::string& command, const std::string& linkText);

}  // namespace forms

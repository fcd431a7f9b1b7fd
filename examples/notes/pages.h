#pragma once
// The pages, as documents: whatever text is put into one is escaped.

#include <velkoro/documents.h>

#include <string>
#include <vector>

#include "database.h"

namespace notes {

/// For phones first; wider screens get more columns.
extern const char* const kStyle;

velkoro::Document LoginPage(const std::string& name, const std::string& trouble);
velkoro::Document ListPage(const std::string& person, const std::vector<Note>& notes,
                           const std::string& words, int page);
/// A form for the note, new when its id is 0.
velkoro::Document NotePage(const std::string& person, const Note& note);

}  // namespace notes

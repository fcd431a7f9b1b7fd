#pragma once
// Files in standard semantics: their types and versions, conditional requests and parts of files
// (RFC 9110), and where a directory is asked for without the slash at its end.

#include <string>
#include <string_view>

#include "handlers/served_files.h"
#include "http/content_types.h"
#include "http/fwd.h"

namespace zr {

/// Several ranges of a file are put together in memory; beyond that many bytes the whole file is
/// sent.
inline constexpr std::uint64_t kMostCombined = std::uint64_t{1} << 20;

/// Makes the answer that of a GET or HEAD for that file: status, fields and body. `path` is its
/// path for the system. Throws std::bad_alloc.
void AnswerWithFile(const ZrXHeader& request, ZrXResponseHeader& answer, std::string path,
                    ZrServedFiles::Found found, const ZrContentTypes& types);

/// Makes it a page that says the status, as HTML or, for who prefers that, as a JSON problem.
void AnswerWithPage(const ZrXHeader& request, ZrXResponseHeader& answer, std::uint64_t status);

/// The address of the directory that was asked for without its slash, query included.
std::string DirectoryAddress(const ZrXHeader& request);

}  // namespace zr

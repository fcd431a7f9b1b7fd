#pragma once
// Files in standard semantics: their types and versions, conditional requests and parts of files
// (RFC 9110), and where a directory is asked for without the slash at its end.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "handlers/served_files.h"
#include "handlers/site.h"
#include "http/fwd.h"
#include "http/preferences.h"

namespace zr {

/// Several ranges of a file are put together in memory; beyond that many bytes the whole file is
/// sent.
inline constexpr std::uint64_t kMostCombined = std::uint64_t{1} << 20;

/// In which form a file is sent.
struct FileForm {
  ZrServedFiles::Found found = {};  ///< the file, or the one beside it that has the coding
  ZrCoding coding = ZrCoding::kIdentity;
  bool varies = false;      ///< another request may get another form
  bool compresses = false;  ///< the coding is still to be made of the file
};

/// Finds the form of a file (`path` beneath the directory, in the stored form) for that request.
/// "NAME.br" and "NAME.gz" beside it count, however old they are; without one, text is to be
/// compressed. A request for a part gets the plain form.
FileForm ChooseFileForm(const ZrXHeader& request, ZrServedFiles& files,
                        const std::string& directory, const std::string& path,
                        ZrServedFiles::Found found, const ZrSite& site);
/// Whether the files beside it that ChooseFileForm() may look at are at hand.
bool IsFormAtHand(const ZrXHeader& request, ZrServedFiles& files, const std::string& directory,
                  const std::string& path);

/// Makes the answer that of a GET or HEAD for that file: status, fields and body. Its name is the
/// end of `path`. A body that is to be compressed is the plain one. Throws std::bad_alloc.
void AnswerWithFile(const ZrXHeader& request, ZrXResponseHeader& answer, const std::string& path,
                    FileForm form, const ZrSite& site);

/// Makes it a page that says the status: as a JSON problem for who prefers that, else the site's
/// own, else a small one.
void AnswerWithPage(const ZrXHeader& request, ZrXResponseHeader& answer, std::uint64_t status,
                    const ZrSite& site);

/// Makes it the listing of that open directory, whose path beneath the start directory ends with
/// "/" or is empty. Files that links lead to are listed where they are served.
void AnswerWithListing(
    ZrXResponseHeader& answer, const ZrFile& directory, std::string_view path,
    const std::function<std::shared_ptr<const ZrFile>(const std::string&)>& open);

/// Whether the request is for a page that somebody looks at: what it accepts names HTML.
bool AsksForPage(const ZrXHeader& request);

/// The address of the directory that was asked for without its slash, query included.
std::string DirectoryAddress(const ZrXHeader& request);

}  // namespace zr

#pragma once
// The page that a request gets for which there is nothing else.

#include <string>

#include "html/html_document.h"

/// An error page: a title, a message and a link back into the site. The message is markup and is
/// written as it is: never put parts of a request into it. Write() renders the page.
/// Belongs to one thread at a time, like every document.
class ZrHTML_ErrorMsg404 : public ZrHTML_Document2 {
 public:
  /// The page for a missing document.
  ZrHTML_ErrorMsg404();
  ZrHTML_ErrorMsg404(const std::string& title, const std::string& message,
                     const std::string& linkTarget, const std::string& linkText);
};

#pragma once
// The body of an outgoing form, as browsers send it. What reads such bodies is in form_body.h.

#include <string>
#include <utility>
#include <vector>

#include "http/message_head.h"

namespace zr {

using FormFields = std::vector<std::pair<std::string, std::string>>;

/// Makes the request a POST with these fields as its multipart body: sets the type, the body and a
/// boundary that occurs in no value. Quotes and line ends in names are percent-encoded, values go
/// as they are. Threads: the one that builds the head.
void SetFormBody(ZrXHeader& head, const FormFields& fields);

}  // namespace zr

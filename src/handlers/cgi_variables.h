#pragma once
// What a program learns of its request: the variables of the Common Gateway Interface that come
// from the message. The fields are a stranger's text, so only harmless ones become variables.

#include "handlers/pipe_exec.h"
#include "http/fwd.h"

namespace zr {

/// Adds REQUEST_METHOD, one "HTTP_" variable per header field (its first value) and what belongs to
/// the method: QUERY_STRING for GET; CONTENT_TYPE and, when the field is there, CONTENT_LENGTH for
/// POST. Answers no, and adds nothing, for any other message type.
/// A field becomes a variable when its name holds letters, digits, "-" and "_" only. "proxy" never
/// does: programs would take HTTP_PROXY for their own setting. Of two names that give the same
/// variable the one with "-" wins. A value with a NUL byte is left out.
/// Threads: any, as long as nobody changes the request.
bool BuildCgiVariables(const ZrXHeader& request, ZrCgiVariables& variables);

}  // namespace zr

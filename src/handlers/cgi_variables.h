#pragma once
// What a program learns of its request: the variables of the Common Gateway Interface that come
// from the message. The fields are a stranger's text, so only harmless ones become variables.

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "handlers/pipe_exec.h"
#include "http/fwd.h"
#include "platform/filesystem.h"

namespace zr {

/// Adds REQUEST_METHOD, one "HTTP_" variable per header field (its first value) and what belongs to
/// the method: QUERY_STRING for GET; CONTENT_TYPE and, when the field is there, CONTENT_LENGTH for
/// POST. Answers no, and adds nothing, for any other message type.
/// A field becomes a variable when its name holds letters, digits, "-" and "_" only. "proxy" never
/// does: programs would take HTTP_PROXY for their own setting. Of two names that give the same
/// variable the one with "-" wins. A value with a NUL byte is left out.
/// Threads: any, as long as nobody changes the request.
bool BuildCgiVariables(const ZrXHeader& request, ZrCgiVariables& variables);

/// What a program learns of a request in standard semantics (RFC 3875, 4.1). The texts live as long
/// as the call.
struct ProgramRequest {
  std::string_view method;
  std::string_view protocol;      ///< "HTTP/1.1"
  std::string_view target;        ///< as it was sent, query included
  std::string_view query;         ///< as it was sent
  std::string_view scriptName;    ///< the decoded path that leads to the program, with its "/"
  std::string_view extraPath;     ///< what follows it, with its "/"; or empty
  std::string_view documentRoot;  ///< absolute, without "/" at its end
  std::string_view scriptFile;    ///< absolute
  bool secure = false;
  std::string_view serverAddress;
  std::string_view serverPort;
  std::string_view remoteAddress;
  std::string_view remotePort;
  std::string_view user;  ///< whom the server knows the request to be from; empty: nobody
  /// The bytes of the body, however it came; none when there is no body.
  std::optional<std::uint64_t> bodyBytes = std::nullopt;
  const ZrHeaderFields* fields = nullptr;  ///< required
};

/// Adds every meta-variable of the request, what web programs expect beyond them (REQUEST_URI,
/// SCRIPT_FILENAME, DOCUMENT_ROOT, REMOTE_PORT, HTTPS), and its fields as for BuildCgiVariables(),
/// but with all values of a name, joined as a list ("Cookie" by "; "). SERVER_NAME and SERVER_PORT
/// are those of the "Host" field where it has them.
void BuildStandardVariables(const ProgramRequest& request, ZrCgiVariables& variables);

/// Where the name of a program ends in a path: "/x/y/z" runs "/x/y" with the extra path "/z" when
/// that is a file.
struct ProgramPath {
  std::string_view program;
  std::string_view extra;
};
/// `kindOf` tells what stands at the start of the path up to a place, links followed. It is asked
/// from the front and not beyond the first name that is missing. Nothing when no file is on the
/// way.
std::optional<ProgramPath> SplitProgramPath(
    std::string_view path, const std::function<ZrPathKind(std::string_view)>& kindOf);

}  // namespace zr

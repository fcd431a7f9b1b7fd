#pragma once
// What a program registers with the application to answer form commands: a request whose fields
// hold "quarnid" goes to the handler of that name, with the text of "quarncommand".

#include <string>

#include "http/fwd.h"

/// A handler of form commands. Owned by the program that registers it; the application keeps a
/// plain pointer until it is replaced or until the application ends, and calls Release() in the
/// latter case. Calls come from the servers' threads, one at a time for all handlers of an
/// application (under its recursive handler lock), so a handler may use the application's handler
/// operations.
class ZrCommandHandler {
 public:
  virtual ~ZrCommandHandler() = default;

  /// The name under which commands find it. Must not change while it is registered.
  virtual std::string Name() const = 0;

  /// Answers one command: fills body, status and, for 303, location of the answer. The status is
  /// 500 when it comes in, and one that is still 500 afterwards says "not answered": the request
  /// goes on to the stored pages and files. The form fields are in the request's `allFields`. To
  /// let another handler answer further commands under this name, fill the answer's
  /// HandoverRecord(). An exception of whatever type counts as "not answered".
  virtual void Request(ZrXHeader& request, ZrXResponseHeader& answer,
                       const std::string& command) = 0;

  /// The application is ending and has forgotten the handler, which may destroy itself.
  virtual void Release() = 0;
};

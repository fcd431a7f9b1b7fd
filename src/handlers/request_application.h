#pragma once
// The questions that a request handler asks its application. The application stands in a layer
// above and answers them through this interface.

#include <string>

#include "http/fwd.h"

/// Called on the servers' threads, several at once. Must outlive every client that was given it.
class ZrRequestApplication {
 public:
  virtual ~ZrRequestApplication() = default;

  /// The object that answers commands of that name without an id of its own; none when empty.
  virtual ZrCommandHandler* nullQuery(const std::string& name) = 0;
  /// Lets the handler registered under the name answer the command; without one nothing happens.
  virtual void dispatchToHandler(const std::string& name, ZrXHeader& request,
                                 ZrXResponseHeader& answer, const std::string& command) = 0;
  /// Whether a command may be answered at all; a body of another request is then not kept.
  virtual bool takesCommands() { return true; }
  /// Whether the configuration storage holds a page of that name.
  virtual bool hasStoredValue(const std::string& name) = 0;
  /// Puts the text of that page into the head as its body, an empty one when there is none.
  virtual bool fillFromStorage(const std::string& name, ZrXHeader& head) = 0;
};

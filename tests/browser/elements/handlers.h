#pragma once
// The two handlers of the example. Both are registered under the name "forms": the first answers
// until a visitor finishes, then the second takes its place, until one starts again.

#include <string>

#include "handlers/command_handler.h"

namespace forms {

/// Answers with a message until the command "restart" hands back to the other handler.
class ClosedHandler : public ZrCommandHandler {
 public:
  /// The handler that is given the name back; outlives this one.
  void SetNext(ZrCommandHandler* next) { next_ = next; }

  std::string Name() const override { return "forms"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override;
  void Release() override {}  // main() owns it

 private:
  ZrCommandHandler* next_ = nullptr;
};

/// Answers the forms of the start page.
class FormHandler : public ZrCommandHandler {
 public:
  /// Takes over the name when a visitor finishes; outlives this handler.
  explicit FormHandler(ZrCommandHandler* next) : next_(next) {}

  std::string Name() const override { return "forms"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override;
  void Release() override {}  // main() owns it

 private:
  ZrCommandHandler* const next_;
};

}  // namespace forms

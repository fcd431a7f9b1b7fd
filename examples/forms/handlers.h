#pragma once
// The two handlers of the example. Both are registered under the name "forms": the first answers
// until a visitor finishes, then the second takes its place, until one starts again.

#include <string>

#include "handlers/zrrequesthandler.h"

namespace forms {

/// Answers with a message until the command "restart" hands back to the other handler.
class ClosedHandler : public ZrRequestHandler {
 public:
  /// The handler that is given the name back; outlives this one.
  void SetNext(ZrRequestHandler* next) { next_ = next; }

  std::string Name() const override { return "forms"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override;
  void Release() override {}  // main() owns it

 private:
  ZrRequestHandler* next_ = nullptr;
};

/// Answers the forms of the start page.
class FormHandler : public ZrRequestHandler {
 public:
  /// Takes over the name when a visitor finishes; outlives this handler.
  explicit FormHandler(ZrRequestHandler* next) : next_(next) {}

  std::string Name() const override { return "forms"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override;
  void Release() override {}  // main() owns it

 private:
  ZrRequestHandler* const next_;
};

}  // namespace forms

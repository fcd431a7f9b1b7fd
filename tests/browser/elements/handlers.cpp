#include "handlers.h"

#include <cstddef>
#include <string_view>

#include "http/message_block.h"
#include "http/response_head.h"
#include "pages.h"

namespace forms {
namespace {

std::string Greeting(const ZrXHeader& request) {
  const std::string_view name = zr::FieldText(request.bodyFields, "name");
  const std::string_view colour = zr::FieldText(request.bodyFields, "colour");
  return "Hello " + Escaped(name.empty() ? "stranger" : name) + ", your lamp is " +
         Escaped(colour) + ".";
}

std::string UploadReport(const ZrXHeader& request) {
  const auto file = request.bodyFields.find("file");
  if (file == request.bodyFields.end()) return "No file came.";
  constexpr std::size_t kShown = 60;
  const std::string_view content = file->second->Text();
  return std::to_string(content.size()) + " bytes of " +
         Escaped(file->second->attributes.at("mimetype")) +
         " came: " + Escaped(content.substr(0, kShown));
}

void HandOver(ZrXResponseHeader& answer, ZrCommandHandler* next) {
  answer.HandoverRecord() = {"forms", next};
}

}  // namespace

void FormHandler::Request(ZrXHeader& request, ZrXResponseHeader& answer,
                          const std::string& command) {
  if (command == "&new" || command == "show") {
    answer.SetBodyText(StartPage());
  } else if (command == "greet") {
    answer.SetBodyText(MessagePage("Greeting", Greeting(request), "show", "Back"));
  } else if (command == "upload") {
    answer.SetBodyText(MessagePage("Upload", UploadReport(request), "show", "Back"));
  } else if (command == "finish") {
    HandOver(answer, next_);
    answer.SetBodyText(MessagePage("Finished", "Thank you.", "show", "Try the forms"));
  }
  // Any other command leaves the status at 500, "not answered": the visitor gets the 404 page.
}

void ClosedHandler::Request(ZrXHeader& /*request*/, ZrXResponseHeader& answer,
                            const std::string& command) {
  if (command == "restart") {
    HandOver(answer, next_);
    answer.SetStatus(303);
    answer.location = "/";
    return;
  }
  answer.SetBodyText(MessagePage("Closed", "The forms are closed: another handler answers.",
                                 "restart", "Start again"));
}

}  // namespace forms

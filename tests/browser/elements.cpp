// Pages of element classes and form commands, for forms_test.py:  velkoro_elements CERTIFICATE KEY
//
// Serves https at a port that the system chooses, prints the address and ends with its standard
// input.

#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>

#include "base/server_callback.h"
#include "handlers/command_handler.h"
#include "host/application.h"
#include "html/command_compiler.h"
#include "html/css_nodes.h"
#include "html/form_elements.h"
#include "html/html_document.h"
#include "html/html_elements.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "http/message_block.h"
#include "http/protocol_kind.h"
#include "http/response_head.h"
#include "markup/xml_nodes.h"
#include "velkoro/documents.h"

namespace {

/// What a draggable element calls when the mouse button goes down on it.
constexpr const char* kDragScript = R"(function quarn_start_drag(element) {
  element.style.position = 'absolute';
  document.onmousemove = function (event) {
    element.style.left = event.pageX + 'px';
    element.style.top = event.pageY + 'px';
  };
  document.onmouseup = function () { document.onmousemove = document.onmouseup = null; };
})";

void AddRule(ZrHTML_style2& sheet, const std::string& selector,
             std::initializer_list<const char*> declarations) {
  ZrCSSRule* const rule = sheet.Adopt(std::make_unique<ZrCSSRule>(selector));
  for (const char* declaration : declarations)
    rule->Adopt(std::make_unique<ZrCSSProperty>(declaration, false));
}

std::unique_ptr<ZrHTML_style2> StyleSheet() {
  auto sheet = std::make_unique<ZrHTML_style2>();
  AddRule(*sheet, "body", {"font-family: sans-serif", "margin: 2em"});
  AddRule(*sheet, "#box", {"width: 8em", "padding: 1em", "background: #fe8", "cursor: move"});
  AddRule(*sheet, ".lamp",
          {"display: inline-block", "width: 2em", "height: 2em", "background: #c00"});
  // The key frames that light the lamps .lamp0, .lamp1 and .lamp2 in turn.
  sheet->Adopt(std::make_unique<ZrXMLGenericText>(
      "\n" + zr::EvaluateCommand(
                 "!linearanimation('.lamp', 3s, infinite, 3, 'opacity: 1;', 'opacity: 0.2;', 5)")));
  return sheet;
}

void AddInput(ZrXMLComplexElement& parent, const char* type, const char* name,
              const std::string& value) {
  auto input = std::make_unique<ZrHTML_input2>();
  input->type.SetFromText(type);
  if (*name != '\0') {
    input->name.SetFromText(name);
    input->id.SetFromText(name);
  }
  if (!value.empty()) input->value.SetFromString(value);
  parent.Adopt(std::move(input));
}

/// A form that sends a command to the handler registered as "forms".
std::unique_ptr<ZrHTML_form2> CommandForm(const std::string& command) {
  auto form = std::make_unique<ZrHTML_form2>("/", "POST");
  form->id.SetFromString(command);
  for (const auto& [name, value] : {std::pair<const char*, std::string>{"quarnid", "forms"},
                                    std::pair<const char*, std::string>{"quarncommand", command}}) {
    auto field = std::make_unique<ZrHTML_input2>();
    field->type.SetFromText("hidden");
    field->name.SetFromText(name);
    field->value.SetFromString(value);
    form->Adopt(std::move(field));
  }
  return form;
}

std::unique_ptr<ZrHTML_form2> GreetForm() {
  auto form = CommandForm("greet");
  form->Adopt(std::make_unique<ZrHTML_label2>("name", "Your name"));
  AddInput(*form, "text", "name", "");
  ZrHTML_select2* const colour = form->Adopt(std::make_unique<ZrHTML_select2>("colour", "colour"));
  colour->Adopt(std::make_unique<ZrHTML_option2>("red", "Red", true));
  colour->Adopt(std::make_unique<ZrHTML_option2>("green", "Green"));
  AddInput(*form, "submit", "", "Greet");
  return form;
}

std::unique_ptr<ZrHTML_form2> UploadForm() {
  auto form = CommandForm("upload");
  form->SetAttribute("enctype", "multipart/form-data");
  form->Adopt(std::make_unique<ZrHTML_label2>("file", "A file"));
  AddInput(*form, "file", "file", "");
  AddInput(*form, "submit", "", "Upload");
  return form;
}

/// A script that builds a paragraph in the page and puts it below the element "extra". The
/// generated block appends to `document`; it is given one that does so in the right place.
std::unique_ptr<ZrHTML_script2> AddedPart() {
  ZrHTML_p2 part;
  part.id.SetFromText("added");
  part.AppendText("This part was added by a script; it isn't in the page's own text.");
  auto script = std::make_unique<ZrHTML_script2>();
  script->Adopt(std::make_unique<ZrHTML_text2>(
      "(function (document) " + part.ToScript() +
      ")({\n  createElement: function (tag) { return window.document.createElement(tag); },\n"
      "  appendChild: function (element) {\n"
      "    window.document.getElementById('extra').appendChild(element);\n  }\n});"));
  return script;
}

void AddFrame(ZrHTML_Document2& page, const std::string& title) {
  page.AddToHead(std::make_unique<ZrHTML_meta2>("charset=\"utf-8\""));
  page.AddToHead(std::make_unique<ZrHTML_title2>(title));
  page.AddToHead(StyleSheet());
  page.AddToBody(std::make_unique<ZrHTML_h12>()).Adopt(std::make_unique<ZrHTML_text2>(title));
}

std::string StartPage() {
  ZrHTML_Document2 page;
  AddFrame(page, "Forms");
  auto drag = std::make_unique<ZrHTML_script2>();
  drag->Adopt(std::make_unique<ZrHTML_text2>(kDragScript));
  page.AddToHead(std::move(drag));

  auto box = std::make_unique<ZrHTML_div2>("box", true);
  box->AppendText("Drag me");
  page.AddToBody(std::move(box));
  auto lamps = std::make_unique<ZrHTML_p2>();
  for (const char* lamp : {"lamp lamp0", "lamp lamp1", "lamp lamp2"})
    lamps->Adopt(std::make_unique<ZrHTML_span2>())->class_.SetFromText(lamp);
  page.AddToBody(std::move(lamps));
  page.AddToBody(GreetForm());
  page.AddToBody(UploadForm());
  page.AddToBody(std::make_unique<ZrHTML_div2>("extra"));
  page.AddToBody(AddedPart());
  return page.ToText();
}

/// A page with a text (markup, already safe) and a link back.
std::string MessagePage(const std::string& message) {
  ZrHTML_Document2 page;
  AddFrame(page, "Message");
  auto text = std::make_unique<ZrHTML_p2>();
  text->id.SetFromText("message");
  text->AppendText(message);
  page.AddToBody(std::move(text));
  page.AddToBody(std::make_unique<ZrHTML_a2>("/?quarnid=forms&quarncommand=show", "Back"));
  return page.ToText();
}

std::string Greeting(const ZrXHeader& request) {
  const std::string_view name = zr::FieldText(request.bodyFields, "name");
  const std::string_view colour = zr::FieldText(request.bodyFields, "colour");
  return "Hello " + velkoro::Escape(name.empty() ? "stranger" : name) + ", your lamp is " +
         velkoro::Escape(colour) + ".";
}

std::string UploadReport(const ZrXHeader& request) {
  const auto file = request.bodyFields.find("file");
  if (file == request.bodyFields.end()) return "No file came.";
  constexpr std::size_t kShown = 60;
  const std::string_view content = file->second->Text();
  return std::to_string(content.size()) + " bytes of " +
         velkoro::Escape(file->second->attributes.at("mimetype")) +
         " came: " + velkoro::Escape(content.substr(0, kShown));
}

class FormHandler : public ZrCommandHandler {
 public:
  std::string Name() const override { return "forms"; }
  void Request(ZrXHeader& request, ZrXResponseHeader& answer, const std::string& command) override {
    if (command == "&new" || command == "show") answer.SetBodyText(StartPage());
    if (command == "greet") answer.SetBodyText(MessagePage(Greeting(request)));
    if (command == "upload") answer.SetBodyText(MessagePage(UploadReport(request)));
    // Any other leaves the status at 500, "not answered": the visitor gets the 404 page.
  }
  void Release() override {}  // main() owns it
};

/// Shows the start page to visitors who come without a command.
class FormsApplication : public ZrQuarnApplication2 {
 public:
  FormsApplication(std::vector<ZrServerDefinition> servers, ZrOptionMap options,
                   ZrCommandHandler* handler)
      : ZrQuarnApplication2(nullptr, std::move(servers), std::move(options)), handler_(handler) {
    registerHandler(handler);
  }
  // Requests may be on their way to nullQuery(): they end while it is still there.
  ~FormsApplication() override { stopServers(); }
  ZrCommandHandler* nullQuery(const std::string& /*name*/) override { return handler_; }

 private:
  ZrCommandHandler* const handler_;
};

}  // namespace

int main(int count, char** arguments) try {
  if (count != 3) return std::cerr << "usage: velkoro_elements CERTIFICATE KEY\n", 2;
  ZrServerDefinition server{.address = "127.0.0.1", .protocolKind = zr::kProtocolHttps};
  server.options.Set("cacertificate", arguments[1]);
  server.options.Set("privatekey", arguments[2]);
  ZrOptionMap options;
  options.Set("no_browser_popup", "true");
  options.Set("_app_context_commandurl", "/");
  FormHandler handler;
  FormsApplication application({server}, options, &handler);
  application.setObserver([](const ZrServerCallback_t& report) {
    if (report.kind == ZrServerCallback_t::kListening)
      std::cout << "https://127.0.0.1:" << report.info.Get("port") << '/' << std::endl;
  });
  application.startServers();
  for (std::string line; std::getline(std::cin, line);) {
  }
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}

#include "pages.h"

#include <memory>

#include "html/command_compiler.h"
#include "html/css_nodes.h"
#include "html/form_elements.h"
#include "html/html_document.h"
#include "html/html_elements.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "markup/xml_nodes.h"

namespace forms {
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

}  // namespace

std::string Escaped(std::string_view text) {
  std::string safe;
  for (const char ch : text) {
    switch (ch) {
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '&':
        safe += "&amp;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += ch;
    }
  }
  return safe;
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
  auto finish = CommandForm("finish");
  AddInput(*finish, "submit", "", "Finish");
  page.AddToBody(std::move(finish));
  page.AddToBody(std::make_unique<ZrHTML_div2>("extra"));
  page.AddToBody(AddedPart());
  return page.ToText();
}

std::string MessagePage(const std::string& heading, const std::string& message,
                        const std::string& command, const std::string& linkText) {
  ZrHTML_Document2 page;
  AddFrame(page, heading);
  auto text = std::make_unique<ZrHTML_p2>();
  text->id.SetFromText("message");
  text->AppendText(message);
  page.AddToBody(std::move(text));
  page.AddToBody(std::make_unique<ZrHTML_a2>("/?quarnid=forms&quarncommand=" + command, linkText));
  return page.ToText();
}

}  // namespace forms

// Pages and style sheets read from text.

#include "html/zrhtmldtd.h"

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

#include "tests/html/reading.h"

namespace {

using zr::test::Reading;

/// A node and its children: "p(xmltext br)"; "!" marks an element without a class of its own.
std::string Classes(const ZrXMLComplexElement& node) {
  std::string below;
  for (const ZrXMLComplexElement* child : node.Children()) {
    below += (below.empty() ? "" : " ") + Classes(*child);
  }
  const std::string own = node.Name() + (typeid(node) == typeid(ZrXMLGenericElement) ? "!" : "");
  return below.empty() ? own : own + "(" + below + ")";
}

struct Case {
  const char* kind;
  const char* text;
  const char* classes;  // of the top-level nodes
  const char* written;
};

constexpr Case kGood[] = {
    {"html", "<!DOCTYPE html><html><body>a b</body></html>",
     "HTMLDoctype html(body(xmltext xmlwhitespace xmltext))",
     "<!DOCTYPE html>\n<html>\n<body>\na b\n</body>\n</html>"},
    {"html", "<div id='x' style=\"b:2;a:1\" hidden><br/></div>", "div(br)",
     "<div hidden=\"true\" id=\"x\" style=\"a: 1;b: 2;\">\n<br />\n</div>"},
    {"html", "<DIV></DIV><blink/><?go?><!-- c -->", "DIV! blink! procinst comment",
     "<DIV /><blink /><?go?><!-- c -->"},
    {"html", "<form><input type=\"text\"></input></form>", "form(input)",
     "<form method=\"POST\">\n<input type=\"text\" />\n</form>"},
    // What follows an open void element closes it and is gone.
    {"html", "<p><br>lost<hr> <b></b></p>", "p(br hr b)", "<p>\n<br />\n<hr />\n<b></b>\n</p>"},
    {"html", "<progress max='10' value='2.50'/>", "progress",
     "<progress max=\"10\" value=\"2.5\"></progress>"},
    {"html", "<option selected>One</option>", "option(xmltext xmltext)",
     "<option selected=\"true\" value=\"\">\n\nOne\n</option>"},
    {"xmlhtml", "<p>a</p>", "p(xmltext)", "<p>a</p>"},
    {"html", "<style>\n p { color : red;/* c */ margin:0 }\n@media x { a{} }<!--/*c*/--></style>",
     "style(xmlwhitespace cssrule(xmlwhitespace cssproperty xmltext xmlwhitespace cssproperty "
     "xmlwhitespace) xmlwhitespace cssmediaquery(xmlwhitespace cssrule xmlwhitespace) "
     "csshtmlcomment(xmltext))",
     "<style type=\"text/css\">\n p { color: red;/* c */ margin: 0; }\n@media x { a{} }"
     "<!--/*c*/--></style>"},
    {"html", "<style/><p></p>", "style p", "<style type=\"text/css\"></style><p></p>"},
    {"css", "#a .b,*{x:1;y:;}\n.c{}", "cssrule(cssproperty cssproperty) xmlwhitespace cssrule",
     "#a .b,*{x: 1;}\n.c{}"},
    {"cssRule", "a:1; b:2}", nullptr, "a: 1; b: 2;"},
};

TEST(HtmlReader, ReadsPagesAndStyleSheets) {
  for (const Case& c : kGood) {
    SCOPED_TRACE(c.text);
    Reading reading(c.kind, c.text);
    const std::string error = reading.Error();
    if (c.classes == nullptr) {
      EXPECT_NE(error, "") << "the closer of a rule has nothing to close at top level";
    } else {
      EXPECT_EQ(error, "");
      EXPECT_EQ(Classes(reading.Top()),
                "ZrXMLContentSplitter::TOP!(" + std::string(c.classes) + ")");
    }
    EXPECT_EQ(reading.Written(), c.written);
  }
}

TEST(HtmlReader, RefusesWithTheLine) {
  struct Bad {
    const char* kind;
    const char* text;
    const char* message;
  };
  constexpr Bad kBad[] = {
      {"html", "<p>\n<br></p>", "wrong closing tag '/p' instead '/br' around line 2"},
      {"html", "<br><b>", "wrong closing tag 'b' instead '/br' around line 1"},
      {"html", "<p style='a:b:c'/>", "style syntax wrong at: >a:b:c<  around line 1"},
      {"html", "<progress value='x'/>",
       "element type 'xmlelement' not defined in DTD around line 1"},
      {"html", "<style>\n<b></style>", "must be an CSS element around line 2"},
      {"html", "<style><!-- --></style>", "child must be text around line 1"},
      {"html", "<style>p{a;}</style>", "CSS property not well formed (missing ':'). around line 1"},
      {"html", "<style>p{;}</style>", "reading error  around line 1"},
      {"css", "@media x{@media y{}}", "must be an CSS element around line 1"},
      {"css", "p{}}", "wrong closing tag '}' instead '/ZrXMLContentSplitter::TOP' around line 1"},
      {"css", "p{<b/>}", "reading error  around line 1"},
  };
  for (const Bad& c : kBad) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Reading(c.kind, c.text).Error(), c.message);
  }
}

}  // namespace

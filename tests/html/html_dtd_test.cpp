// Pages and style sheets read from text.

#include "html/html_dtd.h"

#include <gtest/gtest.h>

#include "tests/markup/dump.h"

namespace {

struct Case {
  const char* kind;
  const char* text;
  const char* result;
  const char* written = nullptr;
};

TEST(HtmlDtd, ReadsPagesAndStyleSheets) {
  constexpr Case kCases[] = {
      {"html", "<!DOCTYPE html><html><body>a b</body></html>",
       "HTMLDoctype html(body(\"a\" {.} \"b\")) @1",
       "<!DOCTYPE html>\n<html>\n<body>\na b\n</body>\n</html>"},
      {"html", "<div id='x' style=\"b:2;a:1\" hidden><br/></div>",
       "div[hidden=true id=x style=a: 1;b: 2;](br) @1",
       "<div hidden=\"true\" id=\"x\" style=\"a: 1;b: 2;\">\n<br />\n</div>"},
      {"html", "<DIV></DIV><blink/><?go?><!-- c -->", "DIV blink ?go? ! c ! @1",
       "<DIV /><blink /><?go?><!-- c -->"},
      {"html", "<form><input type=\"text\"></input></form>",
       "form[method=POST](input[type=text]) @1",
       "<form method=\"POST\">\n<input type=\"text\" />\n</form>"},
      // What follows an open void element closes it and is gone.
      {"html", "<p><br>lost<hr> <b></b></p>", "p(br hr b) @1",
       "<p>\n<br />\n<hr />\n<b></b>\n</p>"},
      {"html", "<progress max='10' value='2.50'/>", "progress[max=10 value=2.5] @1",
       "<progress max=\"10\" value=\"2.5\"></progress>"},
      {"html", "<option selected>One</option>", "option[selected=true value=](\"\" \"One\") @1",
       "<option selected=\"true\" value=\"\">\n\nOne\n</option>"},
      {"xmlhtml", "<p>a</p>", "p('a') @1", "<p>a</p>"},
      {"html",
       "<style>\n p { color : red;/* c */ margin:0 }\n@media x { a{}/*c*/<!--/*d*/--> }"
       "<!--/*e*/-->/*f*/</style>",
       "style[type=text/css]({n.} cssrule({.} cssproperty '/* c */' {.} cssproperty {.}) {n} "
       "cssmediaquery({.} cssrule '/*c*/' csshtmlcomment('/*d*/') {.}) csshtmlcomment('/*e*/') "
       "'/*f*/') @3",
       "<style type=\"text/css\">\n p { color: red;/* c */ margin: 0; }\n"
       "@media x { a{}/*c*/<!--/*d*/--> }<!--/*e*/-->/*f*/</style>"},
      {"html", "<style/><p></p>", "style[type=text/css] p @1",
       "<style type=\"text/css\"></style><p></p>"},
      {"css", "#a .b,*{x:1;y:;}\n.c{}", "cssrule(cssproperty cssproperty) {n} cssrule @2",
       "#a .b,*{x: 1;}\n.c{}"},
      // Each declaration was first tried as a rule, to the end of the input.
      {"css", "a:b;\nc:d;\n", "cssproperty {n} cssproperty {n} @6", "a: b;\nc: d;\n"},
      // The whitespace before the brace was taken and given back: its line feeds count twice.
      {"css", "a{b:c\n\n}", "cssrule(cssproperty {nn}) @5", "a{b: c;\n\n}"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(zrtest::Read(c.text, c.kind, zr::HtmlDocumentKinds()), c.result);
    EXPECT_EQ(zrtest::ReadAndWritten(c.text, c.kind, zr::HtmlDocumentKinds()), c.written);
  }
}

TEST(HtmlDtd, RefusesWithTheLine) {
  constexpr Case kCases[] = {
      {"html", "<p>\n<br></p>",
       "p({n} br) @2 # wrong closing tag '/p' instead '/br' around line 2"},
      {"html", "<br><b>", "br @1 # wrong closing tag 'b' instead '/br' around line 1"},
      {"html", "<p style='a:b:c'/>", "@1 # style syntax wrong at: >a:b:c<  around line 1"},
      {"html", "<progress value='x'/>",
       "@1 # element type 'xmlelement' not defined in DTD around line 1"},
      {"html", "<style>\n<b></style>",
       "style[type=text/css]({n} b) @2 # must be an CSS element around line 2"},
      {"html", "<style><!-- --></style>",
       "style[type=text/css](csshtmlcomment({.})) @1 # child must be text around line 1"},
      {"html", "<style>p{a;}</style>",
       "style[type=text/css](cssrule) @1 # CSS property not well formed (missing ':'). around line "
       "1"},
      {"html", "<style>p{;}</style>",
       "style[type=text/css](cssrule) @1 # reading error  around line 1"},
      {"css", "@media x{@media y{}}",
       "cssmediaquery(cssmediaquery) @1 # must be an CSS element around line 1"},
      {"css", "p{}}",
       "cssrule @1 # wrong closing tag '}' instead '/ZrXMLContentSplitter::TOP' around line 1"},
      {"css", "/* a", "@1 # reading error  around line 1"},
      {"cssRule", "a:1;}",
       "cssproperty @1 # wrong closing tag '}' instead '/ZrXMLContentSplitter::TOP' around line 1"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(zrtest::Read(c.text, c.kind, zr::HtmlDocumentKinds()), c.result);
  }
}

// Each of these took minutes if an attempt cost what lies in the buffer and not what it consumed.
TEST(HtmlDtd, HostileSheetsAreLinear) {
  const std::string declarations = zrtest::Repeated("a: b;\n", 400'000);
  const std::string blanks = zrtest::Repeated(" ", 2'000'000) + "}";
  EXPECT_TRUE(zrtest::ReadAndWritten(declarations, "css", zr::HtmlDocumentKinds()) == declarations);
  EXPECT_TRUE(zrtest::ReadAndWritten("a{b:c" + blanks, "css", zr::HtmlDocumentKinds()) ==
              "a{b: c;" + blanks);
}

}  // namespace

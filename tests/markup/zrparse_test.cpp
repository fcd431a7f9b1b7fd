#include "markup/zrparse.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "host/zrexception.h"
#include "markup/zrdtdelementread_css.h"
#include "markup/zrdtdelementread_element.h"
#include "markup/zrdtdelementreaderstream.h"
#include "markup/zrxmlnodes.h"
#include "tests/markup/dump.h"

namespace {

using zr_test::Read;

std::string Repeated(std::string_view text, std::size_t times) {
  std::string all;
  all.reserve(text.size() * times);
  while (times-- != 0) all += text;
  return all;
}

struct Case {
  const char* name;
  std::string_view input;
  std::string_view result;
};

TEST(Parse, XmlTokensBecomeNodes) {
  constexpr Case kCases[] = {
      {"nothing", "", "@1"},
      {"attributes", "<a x='1' y=\"2\" z>", "a[x=1 y=2 z=true] @1"},
      {"attributes without blanks between", "<a x='1'y=\"2\"z/>", "a[x=1 y=2 z=true] @1"},
      {"values keep line feeds and the other quote", "<a x='\n\"<'/>", "a[x=\n\"<] @2"},
      {"the last of equal names counts", "<a x='1' x='2'/>", "a[x=2] @1"},
      {"blanks in a tag", "<a\n x='1'\t\r\n/>b", "a[x=1] 'b' @3"},
      {"self-closed", "<br/><br />", "br br @1"},
      {"names", "<_a-1><B_/></_a-1>", "_a-1(B_) @1"},
      {"words and whitespace", "two words\t\r\n", "'two' {.} 'words' {trn} @2"},
      {"vertical tab and form feed are text", "a\v\fb", "'a\v\fb' @1"},
      {"bytes are bytes", std::string_view("\xff\0\x80", 3),
       std::string_view("'\xff\0\x80' @1", 8)},
      {"comment", "<!-- a -- b -->x", "! a -- b ! 'x' @1"},
      {"the opening's dashes do not close", "<!--->-->", "!->! @1"},
      {"dash before the closing", "<!--a--->", "!a-! @1"},
      {"processing instruction", "<?xml version=\"1.0\"?>\n<a/>", "?xml version=\"1.0\"? {n} a @2"},
      {"the opening's mark does not close", "<?>?>", "?>? @1"},
      {"end tags may carry attributes", "<a></a/><b></b/>", "a b @1"},
      {"open elements stay", "<a><b>x", "a(b('x')) @1"},
      {"greater-than is text", "a>b", "'a>b' @1"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Read(c.input), c.result);
  }
}

TEST(Parse, FailuresNameTheLine) {
  constexpr Case kCases[] = {
      {"mismatch", "<a><b></a>", "a(b) @1 # wrong closing tag '/a' instead '/b' around line 1"},
      {"nothing to close", "\n</a>",
       "{n} @2 # wrong closing tag '/a' instead '/ZrXMLContentSplitter::TOP' around line 2"},
      {"no token", "<a>\n<b>< ", "a({n} b) @2 # reading error  around line 2"},
      {"blanks around the equals sign", "<a x = \"1\">", "@1 # reading error  around line 1"},
      {"blank behind the equals sign", "<a x= \"1\">", "@1 # reading error  around line 1"},
      {"slash within a tag", "<a / b>", "@1 # reading error  around line 1"},
      {"colon in a name", "<a:b/>", "@1 # incomplete tag 'a' around line 1"},
      {"end of a name", "<a", "@1 # incomplete tag 'a' around line 1"},
      {"blank in an end tag", "<a>\n</a >", "a({n}) @2 # incomplete tag '/a' around line 2"},
      {"line feed in an end tag", "<a></a\n>", "a @1 # incomplete tag '/a' around line 1"},
      // An attempt that ran to the end in vain has counted the line feeds on its way; the tag below
      // took three, two within the tag and one behind.
      {"quote missing", "<a\nb='\n>\n", "@4 # reading error  around line 4"},
      {"comment open", "\n<!--\n--", "{n} @3 # reading error  around line 3"},
      {"instruction open", "<?x\n?", "@2 # reading error  around line 2"},
      {"tag open", "<a\n", "@2 # reading error  around line 2"},
      {"doctype is none of xml", "<!DOCTYPE a>", "@1 # reading error  around line 1"},
      {"end", "</", "@1 # reading error  around line 1"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Read(c.input), c.result);
  }
}

TEST(Parse, TokensLongerThanTheWindowAreTheSameTokens) {
  const std::string longText = Repeated("longer than a block ", 5000);
  for (const auto& [open, close] :
       {std::pair{"<!--", "-->"}, std::pair{"<?", "?>"}, std::pair{"<a x='", "'/>"},
        std::pair{"<a><!--\n", "--></a>"}}) {
    SCOPED_TRACE(open);
    const std::string input = open + longText + close;
    std::istringstream stream(input);
    ZrDTDElementReaderStream reader(stream);
    const ZrXMLGenericElement& top = *zr::Parse(reader.Splitter(), reader, "xml", false);
    ASSERT_EQ(top.Children().size(), 1u);
    EXPECT_NE(zr_test::Dump(top).find(longText), std::string::npos);
  }
}

// A small family of style sheets, with plain nodes, so that the states are seen without HTML.
std::unique_ptr<ZrXMLComplexElement> MakeMarked(const char* mark, std::string_view text) {
  return std::make_unique<ZrXMLGenericText>(mark + std::string(text));
}

struct Rule : ZrXMLGenericElement {
  explicit Rule(std::string_view selector) : ZrXMLGenericElement("rule", true) {
    SetAttribute("s", selector);
  }
  std::string Value(ZrNameView newValue) override {
    const std::string stored = ZrXMLGenericElement::Value(newValue);
    return newValue.empty() ? stored : "sheet";
  }
};

void FillSheet(ZrDTD& dtd) {
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_WhitespaceCSS>(),
      [](std::string_view text, ZrDTD&) -> std::unique_ptr<ZrXMLComplexElement> {
        return std::make_unique<ZrXMLGenericWhitespace>(text);
      },
      false);
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_WhitespaceCSSHTMLComment>(),
      [](std::string_view text, ZrDTD&) -> std::unique_ptr<ZrXMLComplexElement> {
        return std::make_unique<Rule>(text);
      },
      true);
  dtd.AddCloser(std::make_unique<ZrDTDElementRead_WhitespaceCSSHTMLCommentCloser>());
  dtd.AddCloser(std::make_unique<ZrDTDElementRead_CloserCSS>());
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_CommentCSS>(),
      [](std::string_view text, ZrDTD&) { return MakeMarked("c:", text); }, false);
  const ZrDTD::Factory rule = [](std::string_view text,
                                 ZrDTD&) -> std::unique_ptr<ZrXMLComplexElement> {
    return std::make_unique<Rule>(text);
  };
  dtd.AddState(std::make_unique<ZrDTDElementRead_MediaQueryCSS>(), rule, true);
  dtd.AddState(std::make_unique<ZrDTDElementRead_RuleCSS>(), rule, true);
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_PropertyCSS>(),
      [](std::string_view text, ZrDTD&) { return MakeMarked("p:", text); }, false);
}

// Failing factories and a void element.
void FillBroken(ZrDTD& dtd) {
  dtd.VoidNames().insert("v");
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_Element>(),
      [](std::string_view text, ZrDTD& own) -> std::unique_ptr<ZrXMLComplexElement> {
        if (text == "null") return nullptr;
        if (text == "throws") throw 7;
        if (text == "refuses") throw ZrException("refused", 1, "test");
        auto element = std::make_unique<ZrXMLGenericElement>(own.SharedName(text), true);
        element->SetClosed(text == "closed");
        return element;
      },
      true);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Text>(), nullptr, false);
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_WhitespaceText>(),
      [](std::string_view text, ZrDTD&) -> std::unique_ptr<ZrXMLComplexElement> {
        return std::make_unique<ZrXMLGenericWhitespace>(text);
      },
      false);
}

constexpr ZrDTDDefinition kKinds[] = {{"sheet", FillSheet}, {"broken", FillBroken}};

TEST(Parse, StyleSheetTokens) {
  constexpr Case kCases[] = {
      {"rule", "body { color: red }", "rule[s=body ]({.} 'p:color: red' {.}) @1"},
      {"declarations", "a{b:c;d:e;}", "rule[s=a]('p:b:c;' 'p:d:e;') @1"},
      // The declaration was first tried as a rule, to the end of the input; then the whitespace
      // before the brace was taken and given back: its line feeds count three times.
      {"line feeds given back", "a{b:c\n\n}", "rule[s=a]('p:b:c' {nn}) @7"},
      {"comment", "/*/ a **/", "'c:/*/ a **/' @1"},
      {"media", "@media x {a{}}", "rule[s=@media x ](rule[s=a]) @1"},
      {"bracket", "<!--a{}-->", "rule[s=<!--](rule[s=a]) @1"},
      {"comment open", "/* a", "@1 # reading error  around line 1"},
      {"brace missing", "#a\n", "@2 # reading error  around line 2"},
      // Each declaration was first tried as a rule, to the end of the input.
      {"declarations without a rule", "a:b;\nc:d;\n", "'p:a:b;' {n} 'p:c:d;' {n} @6"},
      {"nothing to close", "}",
       "@1 # wrong closing tag '}' instead '/ZrXMLContentSplitter::TOP' around line 1"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Read(c.input, "sheet", kKinds), c.result);
  }
}

TEST(Parse, BrokenKindsAreReported) {
  constexpr Case kCases[] = {
      {"null", "<null>", "@1 # problem in DTD with 'xmlelement' around line 1"},
      {"throws", "<throws>", "@1 # element type 'xmlelement' not defined in DTD around line 1"},
      {"refuses", "<refuses>", "@1 # refused around line 1"},
      {"no factory", "x", "@1 # element type 'xmltext' not defined in DTD around line 1"},
      {"closed element", "<closed>\n<a/>",
       "closed @2 # child elements not allowed for closed around line 2"},
      {"void element takes its end tag", "<v></v><a/>", "v a @1"},
      {"void element swallows another token", "<v> <a/>", "v a @1"},
      {"void element refuses another tag", "<v><a/>",
       "v @1 # wrong closing tag 'a' instead '/v' around line 1"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string result = Read(c.input, "broken", kKinds);
    EXPECT_EQ(result, c.result);
  }
  EXPECT_EQ(Read("x", "other", kKinds), "@1 # DTD 'other' not defined around line 1");
  EXPECT_EQ(Read("x", ""), "@1 # DTD can't be empty");
}

TEST(Parse, NestingIsBounded) {
  for (const std::size_t depth : {std::size_t{1000}, std::size_t{1001}}) {
    std::istringstream stream(Repeated("<a>", depth) + "x\n" + Repeated("</a>", depth));
    std::string error;
    const auto root = zr::ParseStream(stream, "xml", error);
    EXPECT_EQ(root != nullptr, depth == 1000);
    EXPECT_EQ(error, depth == 1000 ? "" : "elements nested deeper than 1000 around line 1");
  }
}

TEST(Parse, StreamsThatFailAreReported) {
  std::string error = "as it was";
  std::istringstream empty;
  EXPECT_EQ(zr::ParseStream(empty, "xml", error), nullptr);
  EXPECT_EQ(error, "as it was");
  std::ifstream absent("/nonexistent/file.xml");
  EXPECT_EQ(zr::ParseStream(absent, "xml", error), nullptr);
  EXPECT_EQ(error, "error in stream around line 1");
  std::istringstream throwing("<a/>");
  throwing.exceptions(std::ios_base::eofbit | std::ios_base::failbit);
  EXPECT_EQ(zr::ParseStream(throwing, "xml", error), nullptr);
  EXPECT_EQ(error, "catched an error while processing input");
}

TEST(Parse, StreamGivesTheRootAlone) {
  std::istringstream stream("<?xml version=\"1.0\"?>\n<!-- c -->\n<a><b/></a>\n<second/>");
  std::string error;
  const auto root = zr::ParseStream(stream, "xml", error);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(zr_test::Dump(*root), "a(b)");
  EXPECT_EQ(root->Parent(), nullptr);
}

TEST(Parse, OneTokenAtATime) {
  std::istringstream stream("<a>x</a>");
  ZrDTDElementReaderStream reader(stream);
  std::string seen;
  for (int i = 0; i < 4; ++i) {
    seen += zr_test::Dump(*zr::Parse(reader.Splitter(), reader, i == 0 ? "xml" : "", true)) + " ";
    seen += reader.Splitter().current->Name() + "; ";
  }
  const std::string top = "ZrXMLContentSplitter::TOP";
  EXPECT_EQ(seen, top + "(a) a; " + top + "(a('x')) a; " + top + "(a('x')) " + top + "; " + top +
                      "(a('x')) " + top + "; ");
  reader.Splitter().current = nullptr;
  EXPECT_THROW(zr::Parse(reader.Splitter(), reader, "xml", true), ZrException);
}

// Each of these took minutes if an attempt cost what lies in the buffer and not what it consumed.
TEST(Parse, HostileInputIsLinear) {
  const struct {
    const char* name;
    const char* dtd;
    std::string input;
  } cases[] = {
      {"declarations that could be rules", "sheet", Repeated("a:b;\n", 400'000)},
      {"blanks before a brace", "sheet", "a{b:c" + Repeated(" ", 2'000'000) + "}"},
      {"an open comment far behind", "xml",
       Repeated("text ", 400'000) + "<!-- " + Repeated("-", 500'000)},
      {"attributes in falling order", "xml",
       [] {
         std::string tag = "<a";
         for (int i = 300'000; i-- > 100'000;) tag += " a" + std::to_string(i) + "='" + "1'";
         return tag + "/>";
       }()},
      {"children of one element", "xml", "<a>" + Repeated("<b/>", 500'000)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::istringstream stream(c.input);
    ZrDTDElementReaderStream reader(stream, kKinds);
    try {
      EXPECT_FALSE(zr::Parse(reader.Splitter(), reader, c.dtd, false)->Children().empty());
    } catch (const ZrException& e) {
      EXPECT_STREQ(e.what(), "reading error  around line 1");
    }
  }
}

TEST(Parse, StatesOfOneNameAreRefused) {
  ZrNameTable names;
  ZrDTD dtd("twice", names);
  dtd.AddCloser(std::make_unique<ZrDTDElementRead_CloserCSS>());
  try {
    dtd.AddCloser(std::make_unique<ZrDTDElementRead_CloserCSS>());
    ADD_FAILURE() << "accepted";
  } catch (const ZrException& e) {
    EXPECT_STREQ(e.what(), "name can't be twice");
  }
}

}  // namespace

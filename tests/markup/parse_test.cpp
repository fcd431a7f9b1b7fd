#include "markup/parse.h"

#include <gtest/gtest.h>

#include <sstream>

#include "markup/reader_state_element.h"
#include "markup/reader_state_text.h"
#include "tests/markup/dump.h"

namespace {

using zrtest::Dump;
using zrtest::Read;
using zrtest::Repeated;

struct Case {
  const char* name;
  std::string_view input;
  std::string_view result;
};

TEST(Parse, XmlTokensBecomeNodes) {
  constexpr Case kCases[] = {
      {"attributes", "<a x='1' y=\"2\" z>", "a[x=1 y=2 z=true] @1"},
      {"attributes without blanks between", "<a x='1'y=\"2\"z/>", "a[x=1 y=2 z=true] @1"},
      {"values keep line feeds and the other quote", "<a x='\n\"<'/>", "a[x=\n\"<] @2"},
      {"the last of equal names counts", "<a x='1' x='2'/>", "a[x=2] @1"},
      {"blanks in a tag", "<a\n x='1'\t\r\n/>b", "a[x=1] 'b' @3"},
      {"names", "<_a-1><B_/><B_ /></_a-1>", "_a-1(B_ B_) @1"},
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
  for (const Case& c : kCases) EXPECT_EQ(Read(c.input), c.result) << c.name;
}

// Words, names and values of every length around those where they are read or kept in another way.
TEST(Parse, TokensOfAnyLengthAreKept) {
  for (const std::size_t size : std::initializer_list<std::size_t>{1, 7, 8, 9, 14, 15, 16, 17, 31,
                                                                   32, 33, 1024, 1025, 40'000}) {
    const std::string word = Repeated("n", size);
    const std::string other = Repeated("n", size - 1) + "o";  // differs in the last byte only
    const std::string tag = word + " " + other + "='" + word + "' " + word + "='" + other + "'";
    const std::string dump = word + "[" + word + "=" + other + " " + other + "=" + word + "]({" +
                             Repeated(".", size) + "} '" + word + "' " + other + ") ";
    EXPECT_EQ(
        Read("<" + tag + ">" + Repeated(" ", size) + word + "<" + other + "/></" + word + ">"),
        dump + "@1");
  }
  for (const int count : {16, 17, 47, 48}) {
    std::string tag;
    std::string dump;
    for (int i = 10; i < 10 + count; ++i) {
      tag.insert(0, " a" + std::to_string(i) + "='\n'");  // in falling order
      dump += (i == 10 ? "[a" : " a") + std::to_string(i) + "=\n";
    }
    EXPECT_EQ(Read("<t" + tag + "/>"), "t" + dump + "] @" + std::to_string(count + 1));
  }
}

TEST(Parse, FailuresNameTheLine) {
  constexpr Case kCases[] = {
      {"mismatch", "<a><b></a>", "a(b) @1 # wrong closing tag '/a' instead '/b' around line 1"},
      {"nothing to close", "\n</a>",
       "{n} @2 # wrong closing tag '/a' instead '/ZrXMLContentSplitter::TOP' around line 2"},
      {"no token", "<a>\n<b>< ", "a({n} b) @2 # reading error  around line 2"},
      {"blanks around the equals sign", "<a x = \"1\">", "@1 # reading error  around line 1"},
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
      {"doctype is none of xml", "<!DOCTYPE a>", "@1 # reading error  around line 1"},
  };
  for (const Case& c : kCases) EXPECT_EQ(Read(c.input), c.result) << c.name;
}

// Failing factories.
void FillBroken(ZrDTD& dtd) {
  dtd.AddState(
      std::make_unique<ZrDTDElementRead_Element>(),
      [](std::string_view text, ZrDTD& own) -> std::unique_ptr<ZrXMLComplexElement> {
        if (text == "null") return nullptr;
        if (text == "throws") throw 7;
        if (text == "refuses") throw ZrException("refused");
        auto element = std::make_unique<ZrXMLGenericElement>(own.SharedName(text), true);
        element->SetClosed(text == "closed");
        return element;
      },
      true);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Text>(), nullptr, false);
}

TEST(Parse, BrokenKindsAreReported) {
  const auto fillTwice = [](ZrDTD& dtd) {
    for (int i = 0; i < 2; ++i)
      dtd.AddState(std::make_unique<ZrDTDElementRead_Text>(), nullptr, false);
  };
  const ZrDTDDefinition kKinds[] = {{"broken", FillBroken}, {"twice", fillTwice}};
  constexpr Case kCases[] = {
      {"null", "<null>", "@1 # problem in DTD with 'xmlelement' around line 1"},
      {"throws", "<throws>", "@1 # element type 'xmlelement' not defined in DTD around line 1"},
      {"refuses", "<refuses>", "@1 # refused around line 1"},
      {"no factory", "x", "@1 # element type 'xmltext' not defined in DTD around line 1"},
      {"closed element", "<closed><a/>",
       "closed @1 # child elements not allowed for closed around line 1"},
  };
  for (const Case& c : kCases) EXPECT_EQ(Read(c.input, "broken", kKinds), c.result) << c.name;
  EXPECT_EQ(Read("x", "twice", kKinds), "@1 # name can't be twice around line 1");
  EXPECT_EQ(Read("x", "other", kKinds), "@1 # DTD 'other' not defined around line 1");
  EXPECT_EQ(Read("x", ""), "@1 # DTD can't be empty");
}

/// What a stream gives: the dump of its root or else the message.
std::string RootOf(std::istream& stream) {
  std::string error = "no root";
  const auto root = zr::ParseStream(stream, "xml", error);
  if (root == nullptr) return error;
  EXPECT_EQ(root->Parent(), nullptr);
  return Dump(*root);
}

TEST(Parse, StreamsGiveTheirRootAlone) {
  std::istringstream document("<?xml version=\"1.0\"?>\n<!-- c -->\n<a><b/></a>\n<second/>");
  EXPECT_EQ(RootOf(document), "a(b)");
  std::istringstream throwing("<a/>");
  throwing.exceptions(std::ios_base::eofbit | std::ios_base::failbit);
  EXPECT_EQ(RootOf(throwing), "catched an error while processing input");
}

TEST(Parse, NestingIsBounded) {
  for (const std::size_t depth : {std::size_t{1000}, std::size_t{1001}}) {
    std::istringstream stream(Repeated("<a>", depth) + "x\n" + Repeated("</a>", depth));
    const std::string result = RootOf(stream);
    EXPECT_EQ(result.starts_with("a(a("), depth == 1000);
    EXPECT_EQ(result == "elements nested deeper than 1000 around line 1", depth == 1001);
  }
}

// Each of these took minutes if an attempt cost what lies in the buffer and not what it consumed.
TEST(Parse, HostileInputIsLinear) {
  std::string attributes = "<a";
  for (int i = 300'000; i-- > 100'000;) attributes += " a" + std::to_string(i) + "='1'";
  for (const std::string& input :
       {Repeated("text ", 400'000) + "<!-- " + Repeated("-", 500'000),  // a comment left open
        attributes + "/>",                                              // in falling order
        "<a>" + Repeated("<b/>", 500'000)}) {
    std::istringstream stream(input);
    ZrDTDElementReaderStream reader(stream);
    const std::string error =
        zrtest::MessageOf([&] { zr::Parse(reader.Splitter(), reader, "xml", false); });
    EXPECT_EQ(error, input[0] == 't' ? "reading error  around line 1" : "nothing thrown");
    EXPECT_FALSE(reader.Splitter().top->Children().empty());
  }
}

}  // namespace

// Style attributes and the nodes of style sheets.

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "host/zrexception.h"
#include "html/zrcssnodes.h"
#include "html/zrcssproperty.h"
#include "html/zrhtmlplainelements.h"
#include "html/zrstyleattribute.h"
#include "markup/zrxmlnodes.h"

namespace {

std::string Written(const ZrStyleAttribute& style) {
  std::ostringstream text;
  style.WriteValue(text);
  return text.str();
}
std::string Written(const ZrXMLComplexElement& node) {
  std::ostringstream text;
  node.Write(text);
  return text.str();
}

template <typename Action>
std::string MessageOf(Action&& action) {
  try {
    action();
  } catch (const ZrException& e) {
    return e.what();
  }
  return "no exception";
}

TEST(StyleAttribute, ReadsDeclarationsAndWritesThemByName) {
  struct Case {
    const char* text;
    const char* written;
    bool set;
  };
  constexpr Case kCases[] = {
      {"color:red;", "color: red;", true},
      {"a:b;c:d", "a: b;c: d;", true},
      {"b:2;a:1", "a: 1;b: 2;", true},
      {"color:red ; margin : 0", "color: red;margin: 0;", true},
      {"a:1;a:2", "a: 2;", true},
      {";;", "", false},
      {"", "", false},
      {" ; ;a: b c ; ", "a: b c;", true},
      {":b", ": b;", true},
      {"a:b:", "a: b;", true},
      {"a:\t1\n", "a: 1;", true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    ZrStyleAttribute style;
    style.SetFromText(c.text);
    EXPECT_EQ(Written(style), c.written);
    EXPECT_EQ(style.IsSet(), c.set);
  }
}

TEST(StyleAttribute, KeepsWhatItReadBeforeAMistake) {
  for (const std::string text : {"color", "a:b:c", "a:", "a::b", ":", "a: "}) {
    ZrStyleAttribute style;
    EXPECT_EQ(MessageOf([&] { style.SetFromString("x:1;" + text + ";y:2"); }),
              "style syntax wrong at: >x:1;" + text + ";y:2< ");
    EXPECT_EQ(Written(style), "x: 1;") << text;
  }
}

TEST(StyleAttribute, AddsAndKeepsPropertiesByName) {
  ZrHTML_b2 element;
  element.style.SetFromText("top:1");
  element.style.SetFromText(nullptr);
  const auto color = element.style.Property("color");
  EXPECT_TRUE(color->IsEmpty());
  EXPECT_EQ(element.ToText(), "<b style=\"top: 1;\"></b>");
  color->SetPropertyValue(" red ");
  EXPECT_EQ(element.style.Property("color"), color);
  EXPECT_EQ(element.ToText(), "<b style=\"color:  red ;top: 1;\"></b>");
  element.SetAttribute("style", "color:blue");
  EXPECT_EQ(element.AttributeValue("style", ""), "color: blue;top: 1;");
  EXPECT_EQ(color->PropertyName(), "color") << "replaced properties live on with their holders";
  EXPECT_EQ(MessageOf([&] { element.style.Property(""); }), "CSS property must have a name");
  ZrHTML_b2 empty;
  empty.style.Property("color");
  EXPECT_EQ(empty.ToText(), "<b style=\"\"></b>");
}

TEST(CssNodes, PropertiesTrimTheirParts) {
  struct Case {
    const char* text;
    bool nameOnly;
    const char* name;
    const char* written;
  };
  constexpr Case kCases[] = {{"color: red;", false, "color", "color: red;"},
                             {" \tcolor ;:\n red ;; \r", false, "\tcolor ;", "\tcolor ;: red;"},
                             {"a:b:c", false, "a", "a: b:c;"},
                             {":x", false, "", ": x;"},
                             {"a: ;", false, "a", ""},
                             {" ;color:\t", true, "color:", ""},
                             {" ; ", true, "", ""}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    const ZrCSSProperty property(c.text, c.nameOnly);
    EXPECT_EQ(property.PropertyName(), c.name);
    EXPECT_EQ(Written(property), c.written);
  }
  EXPECT_EQ(MessageOf([] { ZrCSSProperty("", true); }), "CSS property must have a name");
  EXPECT_EQ(MessageOf([] { ZrCSSProperty("color", false); }),
            "CSS property not well formed (missing ':').");
}

/// One child of each kind; the row says which of them the node accepts.
TEST(CssNodes, EachAcceptsItsKindsAndKeepsWhatItRefused) {
  struct Case {
    std::unique_ptr<ZrXMLComplexElement> node;
    const char* accepted;  // text, whitespace, bracket, query, rule, property, element
    const char* message;
    const char* written;
  };
  const Case cases[] = {
      {std::make_unique<ZrCSSHTMLComment>(), "ynnnnnn", "child must be text",
       "<!--t <!---->@x{}r{}p: v;<b></b>-->"},
      {std::make_unique<ZrCSSMediaQuery>("@m "), "yyynynn", "must be an CSS element",
       "@m {t <!---->@x{}r{}p: v;<b></b>}"},
      {std::make_unique<ZrCSSRule>("a "), "yyynnyn", "must be an CSS element",
       "a {t <!---->@x{}r{}p: v;<b></b>}"},
      {std::make_unique<ZrCSSProperty>("a:b", false), "nnnnnnn", "no childs possible", "a: b;"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.node->Name());
    std::unique_ptr<ZrXMLComplexElement> children[7] = {
        std::make_unique<ZrXMLGenericText>("t"),
        std::make_unique<ZrXMLGenericWhitespace>(" "),
        std::make_unique<ZrCSSHTMLComment>(),
        std::make_unique<ZrCSSMediaQuery>("@x"),
        std::make_unique<ZrCSSRule>("r"),
        std::make_unique<ZrCSSProperty>("p:v", false),
        std::make_unique<ZrHTML_b2>()};
    for (std::size_t i = 0; i < 7; ++i) {
      EXPECT_EQ(MessageOf([&] { c.node->Adopt(std::move(children[i])); }),
                c.accepted[i] == 'y' ? "no exception" : c.message)
          << i;
    }
    EXPECT_EQ(c.node->Children().size(), 7u);
    EXPECT_EQ(Written(*c.node), c.written);
  }
}

}  // namespace

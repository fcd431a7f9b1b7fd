// Style attributes and the nodes of style sheets.

#include <gtest/gtest.h>

#include "html/css_property.h"
#include "html/plain_elements.h"
#include "html/style_attribute.h"
#include "tests/markup/dump.h"

namespace {

using zrtest::MessageOf;
using zrtest::Written;

TEST(Style, ReadsDeclarationsAndWritesThemByName) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"b:2;a:1", "a: 1;b: 2;"},
      {"color:red ; margin : 0", "color: red;margin: 0;"},
      {"a:1;a:2", "a: 2;"},
      {";;", ""},
      {"", ""},
      {" ; ;a: b c ; ", "a: b c;"},
      {":b", ": b;"},
      {"a:b:", "a: b;"},
      {"a:\t1\n", "a: 1;"}};
  for (const auto& [text, written] : kCases) {
    SCOPED_TRACE(text);
    ZrHTML_b2 element;
    element.style.SetFromText(text);
    EXPECT_EQ(element.AttributeValue("style", ""), written);
    EXPECT_EQ(element.style.IsSet(), *written != '\0');
  }
}

TEST(Style, KeepsWhatItReadBeforeAMistake) {
  for (const std::string text : {"color", "a:b:c", "a:", "a::b", ":", "a: "}) {
    ZrHTML_b2 element;
    EXPECT_EQ(MessageOf([&] { element.style.SetFromString("x:1;" + text + ";y:2"); }),
              "style syntax wrong at: >x:1;" + text + ";y:2< ");
    EXPECT_EQ(element.AttributeValue("style", ""), "x: 1;") << text;
  }
}

TEST(Style, AddsAndKeepsPropertiesByName) {
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
  EXPECT_EQ(color->PropertyName(), "color");  // a replaced one lives on with its holders
  element.RemoveAttribute("style");
  EXPECT_EQ(element.ToText(), "<b></b>");
}

TEST(Style, PropertiesTrimTheirParts) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {" \tcolor ;:\n red ;; \r", "\tcolor ;|\tcolor ;: red;"},
      {"a:b:c", "a|a: b:c;"},
      {":x", "|: x;"},
      {"a: ;", "a|"}};
  for (const auto& [text, parts] : kCases) {
    const ZrCSSProperty property(text, false);
    EXPECT_EQ(property.PropertyName() + "|" + Written(property), parts);
  }
  EXPECT_EQ(ZrCSSProperty(" ;color:\t", true).PropertyName(), "color:");
  EXPECT_EQ(MessageOf([] { ZrCSSProperty("", true); }), "CSS property must have a name");
}

}  // namespace

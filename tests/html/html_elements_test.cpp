// What the element classes write, and the script they make of themselves.

#include "html/html_elements.h"

#include <gtest/gtest.h>

#include <set>
#include <typeindex>

#include "html/form_elements.h"
#include "html/html_dtd.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "tests/markup/dump.h"

namespace {

TEST(HtmlElements, WriteTheirAttributesAndText) {
  ZrHTML_p2 styled;
  styled.style.SetFromString("margin: 0;color:red");
  styled.class_.SetFromString("warn");
  styled.id.SetFromString("x");
  styled.AppendText("a");
  styled.AppendText("b");
  ZrHTML_script2 script;
  script.Adopt(std::make_unique<ZrHTML_text2>("go();"));
  const std::pair<std::string, std::string> cases[] = {
      {ZrHTML_div2("x", true).ToText(),
       "<div id=\"x\" onmousedown=\"quarn_start_drag(this);\"></div>"},
      {ZrHTML_a2("/x", "<b>&").ToText(), "<a href=\"/x\">\n<b>&\n</a>"},
      {ZrHTML_option2("1", "One", true).ToText(),
       "<option selected=\"1\" value=\"1\">\nOne\n</option>"},
      {ZrHTML_link2("a.css").ToText(),
       "<link href=\"a.css\" rel=\"stylesheet\" type=\"text/css\" />"},
      {ZrHTML_meta2("charset=\"utf-8\"").ToText(), "<meta charset=\"utf-8\" />"},
      {ZrHTML_iframe2("/f", "10", "").ToText(), "<iframe src=\"/f\" width=\"10\">\n\n</iframe>"},
      {styled.ToText(), "<p class=\"warn\" id=\"x\" style=\"color: red;margin: 0;\">\na\nb\n</p>"},
      {script.ToText(), "<script type=\"text/javascript\">\n<!--\n\ngo();\n//-->\n\n</script>"},
  };
  for (const auto& [written, expected] : cases) EXPECT_EQ(written, expected);
}

TEST(HtmlElements, TheReaderMakesEachTagItsOwnClass) {
  zrtest::CharacterReader reader("", zr::HtmlDocumentKinds());
  for (const char* const kind : {"html", "xmlhtml"}) {
    ZrDTD& dtd = *reader.FindDTD(kind);
    std::set<std::type_index> classes;
    for (const auto& [tag, make] : dtd.TagFactories()) {
      SCOPED_TRACE(tag);
      const auto made = zr::CreateElement(dtd, tag);
      ZrXMLGenericElement& element = *made;
      EXPECT_EQ(element.Name(), tag);
      EXPECT_TRUE(element.OwnLine() && classes.insert(typeid(element)).second);
      EXPECT_EQ(element.IsClosed(), dtd.VoidNames().contains(tag));
    }
    EXPECT_EQ(classes.size(), 115u);
    EXPECT_EQ(dtd.VoidNames().size(), 16u);
  }
}

// The typed members stand in no map, and nobody can tell.
TEST(HtmlElements, MembersAreAttributesLikeOthers) {
  ZrHTML_p2 p;
  const auto all = [&p] {
    std::string names;
    p.ForEachAttribute([&](const std::string& name, const auto*) { names += name + " "; });
    return names;
  };
  EXPECT_THROW(p.AddAttribute("style", nullptr), int);
  for (const char* name : {"z", "id", "data", "i"}) p.SetAttribute(name, name);
  EXPECT_EQ(all(), "class data i id style z ");
  EXPECT_EQ(p.ToText(), "<p data=\"data\" i=\"i\" id=\"id\" z=\"z\"></p>");
  EXPECT_EQ(p.id.Text(), "id");
  EXPECT_EQ(p.AttributeValue("class", "absent"), "");
  EXPECT_TRUE(p.AttributeEquals("class", ""));
  EXPECT_TRUE(p.HasAttribute("class") && !p.HasWrittenAttribute("class"));
  p.Attribute("class")->SetFromText("c");
  EXPECT_EQ(p.class_.Text(), "c");
  EXPECT_TRUE(p.RemoveAttribute("id") && !p.RemoveAttribute("id"));
  EXPECT_EQ(all(), "class data i style z ");
  p.SetAttribute("id", "untyped");
  EXPECT_EQ(p.id.Text(), "id");
  EXPECT_EQ(p.ToText(), "<p class=\"c\" data=\"data\" i=\"i\" id=\"untyped\" z=\"z\"></p>");
}

TEST(HtmlElements, TheirScriptBuildsThemInThePage) {
  ZrHTML_div2 div;
  div.SetAttribute("title", "it's");
  div.AddAttribute("hidden", nullptr);
  div.Adopt(std::make_unique<ZrHTML_b2>())->SetAttribute("x", "1");
  div.AppendText("a\r\n\t\f\b\\\"'\x01/");
  EXPECT_EQ(div.ToScript(),
            "{\nvar newelem = document.createElement('div');\n"
            "newelem.setAttribute('title','it's');\n"
            "newelem.innerHTML=\"<b x=\\\"1\\\"></b>a\\r\\n\\t\\f\\b\\\\\\\"\\'\x01/\";\n"
            "document.appendChild(newelem);\n }");
}

}  // namespace

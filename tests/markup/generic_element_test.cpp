#include "markup/generic_element.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <locale>
#include <stdexcept>

#include "tests/markup/dump.h"

namespace {

using namespace zrtest;

TEST(GenericElement, SearchesFindInDocumentOrder) {
  const auto a = Tree("<a><?p?><!--c-->t<b x='1'><a/></b><c x='1' y><b x='2'/></c></a>");
  const auto count = [&](const char* name, std::size_t depth) {
    ZrXMLNodeList list;
    a->FindByName(name, list, depth);
    return list.size();
  };
  EXPECT_EQ(count("a", 0) + count("b", 0), 1u);
  EXPECT_EQ(count("b", 1), 1u);
  EXPECT_EQ(count("b", ZrXMLComplexElement::kUnlimited), 2u);
  EXPECT_EQ(a->FirstContentChild(false)->Name() + a->SecondContentChild(false)->Name() +
                a->ThirdContentChild(false)->Name() + a->FirstContentChild(true)->Name(),
            "xmltextbcb");
  EXPECT_EQ(a->ThirdContentChild(true), nullptr);
  ZrXMLElementList list;
  a->FindWithAttribute(list, "x");
  EXPECT_EQ(list.size(), 3u);
  EXPECT_EQ(a->FirstWithAttributeValue("x", "2")->Parent()->Name(), "c");
  EXPECT_EQ(a->FirstWithAttributeValue("x", "3"), nullptr);
  list.clear();
  a->CollectElementChildren(list);
  EXPECT_EQ(list.size(), 5u);

  // A search that meets a cleared slot says so.
  struct Searching : ZrXMLGenericElement {
    Searching() : ZrXMLGenericElement("s", true) {}
    void ChildRemoved(ZrXMLComplexElement*) override {
      ZrXMLNodeList list;
      FindByName("x", list, 1);
    }
  } tree;
  tree.Adopt(Element("a"));
  tree.Adopt(Element("b"));
  EXPECT_EQ(MessageOf([&] { tree.DeleteChildren(); }), "Nullelement");
}

TEST(GenericElement, AttributesBySetting) {
  ZrXMLGenericElement e("e", true);
  e.AddAttribute("bare", nullptr);
  EXPECT_EQ(MessageOf([&] { e.AddAttribute("bare", nullptr); }), "2");
  EXPECT_EQ(e.Attribute("bare"), nullptr);
  EXPECT_EQ(e.AttributeValue("bare", "d"), "");
  EXPECT_EQ(e.AttributeValue("absent", "d"), "d");
  EXPECT_FALSE(e.AttributeEquals("bare", ""));
  EXPECT_TRUE(e.HasAttribute("bare"));
  e.SetAttribute("bare", "now set");
  EXPECT_EQ(e.AttributeValue("bare", "d"), "now set");
  EXPECT_TRUE(e.RemoveAttribute("bare"));
  EXPECT_NE(e.Attribute("made"), nullptr);
  EXPECT_TRUE(e.AttributeEquals("made", ""));
  // Order and replacing, beyond the number that an array holds.
  for (int i = 0; i < 200; ++i) {
    e.SetAttribute("n" + std::to_string(i * 7 % 100), std::to_string(i));
  }
  std::vector<std::string> names;
  e.ForEachAttribute([&](const std::string& name, const auto*) { names.push_back(name); });
  EXPECT_EQ(names.size(), 101u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(e.AttributeValue("n7", ""), "101");
  EXPECT_TRUE(e.RemoveAttribute("n7") && !e.HasAttribute("n7") && !e.RemoveAttribute("n7"));
}

TEST(GenericElement, AttributesFromText) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"a=xbcx", "e[a=bc]"},     {"a", "e"},         {"a=\"", "e[a=]"},
      {"a=\"b=c\"", "e[a=b=c]"}, {"a=", "e failed"}, {"n=\"no number\"", "e[n=0] failed"}};
  for (const auto& [text, dump] : kCases) {
    ZrXMLGenericElement e("e", true);
    e.AddAttribute("n", new ZrXMLDoubleZrAttribute);
    e.AssignAttributeText(text);
    EXPECT_EQ(Dump(e) + (e.ErrorFlag() ? " failed" : ""), dump);
    EXPECT_EQ(e.ErrorText(), e.ErrorFlag() ? "error catched while assigning attritutes" : "");
  }
}

TEST(GenericElement, ElementsByAttribute) {
  const auto root = Tree("<r><p><i k='1'/><i k='2'/></p></r>");
  const auto put = [&](const char* key) {
    return root->PutByAttribute(Element("new").release(), "k", key);
  };
  EXPECT_FALSE(root->PutByAttribute(nullptr, "k", "1"));
  EXPECT_TRUE(put("2"));
  EXPECT_FALSE(put("3"));
  EXPECT_EQ(Dump(*root), "r(p(i[k=1] new[k=2]) new[k=3])");
  root->DeleteChildByAttribute("k", "1");  // no direct child
  root->DeleteChildByAttribute("k", "3");
  EXPECT_EQ(Dump(*root), "r(p(i[k=1] new[k=2]))");
  // An attribute that refuses the value leaves the new element with the caller.
  auto refused = Element("refused");
  refused->AddAttribute("k", new ZrXMLDoubleZrAttribute);
  root->FirstWithAttributeValue("k", "1")->SetAttribute("k", "word");
  EXPECT_THROW(root->PutByAttribute(refused.get(), "k", "word"), std::invalid_argument);
  EXPECT_EQ(refused->Parent(), nullptr);
}

struct CommaForPoint : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

TEST(GenericElement, TypedAttributesAreTheSameInEveryLocale) {
  // The text, the number as it is written or what is wrong with it, and the truth.
  constexpr const char* kNone = "invalid stod argument";
  constexpr const char* kCases[][3] = {{"0.1", "0.1", "0"},
                                       {"1234567.0", "1.23457e+06", "1"},
                                       {" \t-3,5", "-3", "1"},
                                       {"+2.50x", "2.5", "1"},
                                       {"1e400", "stod argument out of range", "1"},
                                       {"TRUE", kNone, "1"},
                                       {"no", kNone, "0"},
                                       {"", kNone, "0"},
                                       {"+-1", kNone, "0"},
                                       {"99999999999999999999", "1e+20", "0"},
                                       {"0x10", "16", "0"},
                                       {"-0x", "-0", "0"}};
  const std::locale before = std::locale::global(std::locale(std::locale(), new CommaForPoint));
  for (const auto& [text, number, truth] : kCases) {
    SCOPED_TRACE(text);
    ZrXMLGenericElement e("e", true);
    e.AddAttribute("n", new ZrXMLDoubleZrAttribute);
    e.AddAttribute("b", new ZrXMLBoolZrAttribute);
    EXPECT_EQ(Written(e), "<e />");
    const std::string wrong = MessageOf([&, given = text] { e.SetAttribute("n", given); });
    EXPECT_EQ(wrong == zrtest::kNoMessage ? e.AttributeValue("n", "") : wrong, number);
    // Through the other operation what is wrong counts as 0.
    e.Attribute("n")->SetFromText(text);
    EXPECT_EQ(e.AttributeValue("n", ""), wrong == zrtest::kNoMessage ? number : "0");
    e.SetAttribute("b", text);
    EXPECT_EQ(e.AttributeValue("b", ""), truth);
    e.Attribute("b")->SetFromText(nullptr);
    EXPECT_FALSE(e.Attribute("b")->IsSet());
  }
  std::locale::global(before);
}

// Whatever else a path finds is told by the plain recursion beside it: fuzz/query_fuzz.cpp.
TEST(GenericElement, QueryFindsInDocumentOrderWithinItsBounds) {
  const auto root = Tree("<r><p n='a'><q k/><q k='1'/></p><p n='b.c'><q k='1'/></p></r>");
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"r.p[n=a]", "p[n=a](q[k=true] q[k=1]) "},
      {"p[n=\"b.c\"].q[k]", "q[k=1] "},
      {"p.q", "q[k=true] q[k=1] q[k=1] "},
      {"p[n=a].", ""},
  };
  for (const auto& [path, expected] : kCases) {
    std::string found;
    const auto list = root->Query(path);
    for (const ZrXMLGenericElement* e : *list) found += Dump(*e) + " ";
    EXPECT_EQ(found, expected) << path;
  }
  // A path over elements nested in each other finds them again and again, up to a limit; a path of
  // any length takes no stack.
  const auto chain = Tree(Repeated("<a>", 31) + Repeated("</a>", 31));
  EXPECT_EQ(chain->Query("a.a")->size(), 4u);
  EXPECT_EQ(MessageOf([&] { chain->Query("a" + Repeated(".a", 60)); }),
            "too many results for the path");
  EXPECT_EQ(root->Query("r" + Repeated(".r", 100'000))->size(), 1u);
}

}  // namespace

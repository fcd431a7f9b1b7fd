#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <locale>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "markup/parse.h"
#include "markup/xml_nodes.h"
#include "tests/markup/dump.h"

namespace {

using zrtest::Dump;
using zrtest::MessageOf;
using zrtest::Repeated;
using zrtest::Written;

std::unique_ptr<ZrXMLGenericElement> Element(const char* name) {
  return std::make_unique<ZrXMLGenericElement>(name, true);
}

std::unique_ptr<ZrXMLGenericElement> Tree(const std::string& xml) {
  std::istringstream stream(xml);
  std::string error;
  auto root = zr::ParseStream(stream, "xml", error);
  EXPECT_EQ(error, "");
  return std::unique_ptr<ZrXMLGenericElement>(root.release()->AsGeneric());
}

// Notes its hooks and its end, and can refuse children.
class Noting : public ZrXMLGenericElement {
 public:
  Noting(const char* name, std::string& log) : ZrXMLGenericElement(name, true), log_(log) {}
  ~Noting() override { log_ += "~" + Name() + (Parent() != nullptr ? "^ " : " "); }
  void ChildAdded(ZrXMLComplexElement* child) override {
    log_ += "+" + child->Name() + " ";
    if (refuses) throw ZrException("refused");
  }
  void ChildRemoved(ZrXMLComplexElement* child) override { log_ += "-" + child->Name() + " "; }

  bool refuses = false;

 private:
  std::string& log_;
};

TEST(XmlElement, WritingFollowsTheOwnLineRule) {
  EXPECT_EQ(Written(*Tree("<a/>")), "<a />");
  EXPECT_EQ(Written(*Tree("<a><b/><c/></a>")), "<a>\n<b />\n<c />\n</a>");
  EXPECT_EQ(Written(*Tree("<a>x<b/></a>")), "<a>x<b />\n</a>");
  EXPECT_EQ(Written(*Tree("<a><b/>x</a>")), "<a>\n<b />x</a>");
  EXPECT_EQ(Written(*Tree("<a> <b/> <c/> </a>")), "<a> <b /> <c /> </a>");
  EXPECT_EQ(Written(*Tree("<a><!--c--><b/><?p?></a>")), "<a><!--c--><b /><?p?></a>");
  EXPECT_EQ(Written(*Tree("<a z y='1' x=\"'<>&\"/>")), "<a x=\"'<>&\" y=\"1\" z=\"true\" />");
}

TEST(XmlElement, WritingFlagsAndKinds) {
  const auto a = Element("a");
  a->SetSelfClosesWhenEmpty(false);
  EXPECT_EQ(Written(*a), "<a></a>");
  a->AddAttribute("bare", nullptr);
  a->AddAttribute("unset", new ZrXMLStringZrAttribute);
  a->Adopt(std::make_unique<ZrXMLGenericText>("a text of more than fifteen bytes"));
  EXPECT_EQ(Written(*a), "<a bare>a text of more than fifteen bytes</a>");
  a->SetClosed(true);
  EXPECT_EQ(Written(*a), "<a bare />");

  ZrXML_Document2 document;
  document.Adopt(std::make_unique<ZrXML_Declaration2>("version=\"1.0\""));
  document.Adopt(std::make_unique<ZrXML_Comment2>("c"));
  document.Adopt(std::make_unique<ZrXMLComplexElement>("plain", false, true));
  document.Adopt(std::make_unique<ZrXMLComplexElement>("open", false, false));
  EXPECT_EQ(Written(document), "<?version=\"1.0\"?><!--c--><plain /><open></open>");

  std::ostringstream wide;
  wide.width(20);
  a->Write(wide);
  EXPECT_EQ(wide.str(), "<a bare />");
}

TEST(XmlElement, RefusedChildrenHaveOneOwner) {
  std::string log;
  Noting tree("tree", log);
  auto child = Element("child");
  tree.SetClosed(true);
  EXPECT_EQ(MessageOf([&] { tree.AddChild(child.get()); }), "child elements not allowed for tree");
  EXPECT_EQ(child->Parent(), nullptr);
  EXPECT_THROW(tree.Adopt(Element("gone")), ZrException);
  tree.SetClosed(false);
  tree.refuses = true;
  EXPECT_THROW(tree.Adopt(std::move(child)), ZrException);
  EXPECT_EQ(Dump(tree), "tree(child)");
  EXPECT_EQ(tree.AddChild(nullptr), nullptr);

  // A wrapper that refuses leaves everything as it was.
  Noting wrapper("wrapper", log);
  wrapper.refuses = true;
  ZrXMLComplexElement* const inner = tree.Children().front();
  EXPECT_THROW(tree.WrapChild(inner, &wrapper), ZrException);
  EXPECT_EQ(inner->Parent(), &tree);
  EXPECT_TRUE(wrapper.Children().empty());
  EXPECT_EQ(wrapper.Parent(), nullptr);

  // A replacement that is refused stays, the old child is gone.
  EXPECT_THROW(tree.ReplaceChild(inner, Element("new").release()), ZrException);
  EXPECT_EQ(Dump(tree), "tree(new)");
}

TEST(XmlElement, ChildrenComeAndGoInOrder) {
  std::string log;
  Noting tree("t", log);
  auto* const b = tree.Adopt(Element("b"));
  tree.AddChildFront(Element("a").release());
  EXPECT_EQ(tree.AddChildFront(nullptr), nullptr);
  tree.Adopt(Element("c"));
  EXPECT_EQ(Dump(tree), "t(a b c)");
  EXPECT_TRUE(tree.WrapChild(b, Element("w").release()));
  EXPECT_FALSE(tree.WrapChild(b, tree.Children().front()));
  EXPECT_EQ(Dump(tree), "t(a w(b) c)");
  EXPECT_EQ(b->Parent()->Name(), "w");
  EXPECT_TRUE(tree.ReplaceChild(tree.Children().front(), Element("x").release()));
  EXPECT_FALSE(tree.ReplaceChild(b, tree.Children().front()));
  EXPECT_TRUE(tree.RemoveChild(b->Parent()));
  const std::unique_ptr<ZrXMLComplexElement> w(b->Parent());
  EXPECT_EQ(w->Parent(), nullptr);
  EXPECT_FALSE(tree.RemoveChild(b));
  tree.SetOnlyChild(Element("o").release());
  tree.DeleteChildren();
  EXPECT_EQ(log, "+b +a +c -b +w -a +x -w -x -c +o -o ");
  EXPECT_TRUE(tree.Children().empty());
}

// Each operation at each place costs the same: with 160,000 children these took minutes otherwise.
TEST(XmlElement, ManyChildrenComeAndGoAnywhere) {
  std::string log;
  Noting tree("t", log);
  auto* const middle = tree.Adopt(Element("m"));
  for (int i = 0; i < 80'000; ++i) {
    tree.InsertChild(middle, Element("b").release());
    tree.InsertChild(middle->NextSibling(), Element("a").release());
  }
  EXPECT_EQ(tree.Children().size(), 160'001u);
  EXPECT_EQ(tree.Children().front()->Name() + tree.Children().back()->Name(), "ba");
  log.clear();
  const auto take = [&](ZrXMLComplexElement* child) {
    ASSERT_TRUE(tree.RemoveChild(child));
    EXPECT_EQ(child->PreviousSibling(), nullptr);
    delete child;
  };
  for (int i = 0; i < 80'000; ++i) {
    ASSERT_TRUE(tree.ReplaceChild(middle->PreviousSibling(), Element("x").release()));
    ASSERT_TRUE(tree.WrapChild(middle->PreviousSibling(), Element("w").release()));
    take(middle->NextSibling());
    take(middle->PreviousSibling());
  }
  EXPECT_EQ(log, Repeated("-b +x -x +w -a -w ", 80'000));
  EXPECT_EQ(Dump(tree), "t(m)");
}

// A node is in one place of one tree, and what is refused changes nothing.
TEST(XmlElement, NodesThatAreNotFreeAreRefused) {
  const auto tree = Tree("<t><a k='1'><b/></a><c/></t>");
  ZrXMLComplexElement* const a = tree->Children().front();
  ZrXMLComplexElement* const b = a->Children().front();
  ZrXMLComplexElement* const c = tree->Children().back();
  const auto free = Element("free");
  constexpr char kParent[] = "the node has a parent";
  constexpr char kBelow[] = "a node can't be put below itself";
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {kParent, [&] { tree->AddChild(a); }},
      {kParent, [&] { c->AddChild(b); }},
      {kParent, [&] { tree->AddChildFront(c); }},
      {kParent, [&] { tree->InsertChild(a, c); }},
      {kParent, [&] { tree->SetOnlyChild(c); }},
      {kParent, [&] { tree->ReplaceChild(a, a); }},
      {kParent, [&] { tree->ReplaceChild(a, c); }},
      {kParent, [&] { tree->WrapChild(a, c); }},
      {kParent, [&] { tree->WrapChild(a, a); }},
      {kParent, [&] { tree->PutByAttribute(a->AsGeneric(), "k", "1"); }},
      {kParent, [&] { tree->PutByAttribute(c->AsGeneric(), "k", "none"); }},
      {kParent, [&] { tree->ReplaceByAttribute(b->AsGeneric(), "k", "1"); }},
      {kBelow, [&] { b->AddChild(tree.get()); }},
      {kBelow, [&] { tree->AddChild(tree.get()); }},
      {kBelow, [&] { a->WrapChild(b, tree.get()); }},
      {kBelow, [&] { free->AddChild(free.get()); }},
      {"not a child", [&] { tree->InsertChild(b, free.get()); }},
  };
  for (std::size_t i = 0; i < std::size(kCases); ++i) {
    EXPECT_EQ(MessageOf(kCases[i].second), kCases[i].first) << i;
    EXPECT_EQ(Dump(*tree) + Dump(*free), "t(a[k=1](b) c)free") << i;
  }
  // Whoever deletes a child itself leaves no hole.
  delete b;
  EXPECT_EQ(Dump(*tree), "t(a[k=1] c)");
}

TEST(XmlElement, HooksMayChangeTheListTheyAreCalledFor) {
  struct Taking : ZrXMLGenericElement {
    Taking() : ZrXMLGenericElement("s", true) {}
    void ChildRemoved(ZrXMLComplexElement* child) override {
      written += Written(*this) + "|";
      if (taking) return;
      taking = true;
      if (child->Name() == "gone") RemoveChild(child);
      taking = false;
    }
    std::string written;
    bool taking = false;
  };
  for (int way = 0; way < 4; ++way) {
    Taking tree;
    tree.Adopt(Element("a"));
    const std::unique_ptr<ZrXMLComplexElement> gone(tree.AddChild(Element("gone").release()));
    tree.Adopt(Element("b"));
    auto fresh = Element("new");
    if (way == 0) tree.DeleteChildren();
    if (way == 1) tree.SetOnlyChild(nullptr);
    EXPECT_FALSE(way == 2 && tree.RemoveChild(gone.get()));
    EXPECT_FALSE(way == 3 && tree.ReplaceChild(gone.get(), fresh.get()));
    ASSERT_EQ(gone->Parent(), nullptr);
    EXPECT_EQ(Dump(tree), way < 2 ? "s" : "s(a b)");
    // Written in the middle of it, the tree is what is left of it.
    EXPECT_EQ(way == 0, tree.written.ends_with("<s>\n<b />\n</s>|")) << tree.written;
  }
}

TEST(XmlElement, DestructionGoesInDocumentOrderAndTellsObservers) {
  struct Observer : ZrElementObserver {
    explicit Observer(std::string& text) : log(text) {}
    void ElementGoesAway(ZrXMLComplexElement& element) noexcept override {
      log += "!" + element.Name() + " ";
    }
    std::string& log;
  };
  std::string log;
  Observer observer(log);
  {
    Noting root("r", log);
    root.SetObserver(&observer);
    auto* const a = root.Adopt(std::make_unique<Noting>("a", log));
    a->Adopt(std::make_unique<Noting>("b", log));
    root.Adopt(std::make_unique<Noting>("c", log))->SetObserver(&observer);
    log.clear();
  }
  // No one sees a parent that is gone.
  EXPECT_EQ(log, "~r !r ~a ~b ~c !c ");
}

TEST(XmlElement, AnyDepthIsDestroyedWithoutRecursion) {
  auto root = Element("root");
  ZrXMLComplexElement* deepest = root.get();
  for (int i = 0; i < 1'000'000; ++i) deepest = deepest->Adopt(Element("e"));
  std::ostringstream written;
  root->Write(written);
  EXPECT_EQ(written.str().size(), std::string("<root>\n</root>").size() + 1'000'000 * 9 - 3);
  root.reset();
  // Classes of their own call each other.
  std::string log;
  Noting top("n", log);
  deepest = &top;
  for (int i = 0; i < 50'000; ++i) deepest = deepest->Adopt(std::make_unique<Noting>("n", log));
  EXPECT_EQ(MessageOf([&] { top.Write(written); }), "elements nested too deeply to be written");

  // The other operations at the depth that a reader lets in.
  const std::string text = Repeated("<a x=\"1\">", 1000) + "x" + Repeated("</a>", 1000);
  const auto deep = Tree(text);
  ZrXMLElementList list;
  deep->FindElementsByName("a", list, ZrXMLComplexElement::kUnlimited);
  EXPECT_EQ(list.size(), 1000u);
  list.clear();
  deep->FindWithAttributeValue("x", "1", list);
  EXPECT_EQ(list.size(), 1000u);
  std::ostringstream none;
  deep->WriteText(none);
  EXPECT_EQ(Written(*deep).size(), text.size() + 2 * 999);  // line feeds around each inner element
}

TEST(XmlElement, TreesMoveBetweenThreads) {
  auto tree =
      Tree("<a><b name=\"shared\">text beyond the inline bytes</b><b name=\"shared\"/></a>");
  ZrXMLComplexElement* const b = tree->Children().front();
  ASSERT_TRUE(tree->RemoveChild(b));
  std::string written;
  std::thread other([&] {
    const std::unique_ptr<ZrXMLComplexElement> part(b);
    written = Written(*part);
  });
  const std::string rest = Written(*tree);
  tree.reset();
  other.join();
  EXPECT_EQ(written, "<b name=\"shared\">text beyond the inline bytes</b>");
  EXPECT_EQ(rest, "<a>\n<b name=\"shared\" />\n</a>");
}

TEST(XmlElement, Searching) {
  const auto a = Tree("<a><?p?><!--c-->t<b x='1'><a/></b><c x='1' y><b x='2'/></c></a>");
  const auto count = [&](const char* name, std::size_t depth) {
    ZrXMLNodeList list;
    a->FindByName(name, list, depth);
    return list.size();
  };
  EXPECT_EQ(count("a", 0), 1u);
  EXPECT_EQ(count("b", 0), 0u);
  EXPECT_EQ(count("b", 1), 1u);
  EXPECT_EQ(count("b", ZrXMLComplexElement::kUnlimited), 2u);
  EXPECT_EQ(a->FirstContentChild(false)->Name(), "xmltext");
  EXPECT_EQ(a->FirstContentChild(true)->Name(), "b");
  EXPECT_EQ(a->SecondContentChild(false)->Name(), "b");
  EXPECT_EQ(a->ThirdContentChild(false)->Name(), "c");
  EXPECT_EQ(a->ThirdContentChild(true), nullptr);
  ZrXMLElementList list;
  a->FindWithAttribute(list, "x");
  EXPECT_EQ(list.size(), 3u);
  EXPECT_EQ(a->FirstWithAttributeValue("x", "2")->Parent()->Name(), "c");
  EXPECT_EQ(a->FirstWithAttributeValue("x", "3"), nullptr);
  list.clear();
  a->CollectElementChildren(list);
  EXPECT_EQ(list.size(), 5u);
}

TEST(XmlElement, ASearchThatMeetsAClearedSlotSaysSo) {
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

TEST(XmlElement, AttributesBySetting) {
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
  EXPECT_FALSE(e.RemoveAttribute("bare"));
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
  EXPECT_TRUE(e.RemoveAttribute("n7"));
  EXPECT_FALSE(e.HasAttribute("n7"));
}

TEST(XmlElement, AttributesFromText) {
  const auto assigned = [](const char* text) {
    ZrXMLGenericElement e("e", true);
    e.AddAttribute("n", new ZrXMLDoubleZrAttribute);
    e.AssignAttributeText(text);
    EXPECT_EQ(e.ErrorText(), e.ErrorFlag() ? "error catched while assigning attritutes" : "");
    return Dump(e) + (e.ErrorFlag() ? " failed" : "");
  };
  EXPECT_EQ(assigned("a=\"b\""), "e[a=b]");
  EXPECT_EQ(assigned("a=xbcx"), "e[a=bc]");
  EXPECT_EQ(assigned("a"), "e");
  EXPECT_EQ(assigned("a=\""), "e[a=]");
  EXPECT_EQ(assigned("a=\"b=c\""), "e[a=b=c]");
  EXPECT_EQ(assigned("a="), "e failed");
  EXPECT_EQ(assigned("n=\"no number\""), "e[n=0] failed");
}

TEST(XmlElement, ElementsByAttribute) {
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

TEST(XmlElement, TypedAttributesAreTheSameInEveryLocale) {
  constexpr struct {
    const char* text;
    const char* number;  // as written after reading, or the message
    const char* truth;
  } kCases[] = {{"0.1", "0.1", "0"},
                {"1234567.0", "1.23457e+06", "1"},
                {" \t-3,5", "-3", "1"},
                {"+2.50x", "2.5", "1"},
                {"1e400", "stod argument out of range", "1"},
                {"0", "0", "0"},
                {"TRUE", "invalid stod argument", "1"},
                {"no", "invalid stod argument", "0"},
                {"", "invalid stod argument", "0"},
                {"99999999999999999999", "1e+20", "0"},
                {"0x10", "16", "0"},
                {"+-1", "invalid stod argument", "0"},
                {"--1", "invalid stod argument", "0"},
                {"-0x", "-0", "0"}};
  const std::locale before = std::locale::global(std::locale(std::locale(), new CommaForPoint));
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    ZrXMLGenericElement e("e", true);
    e.AddAttribute("n", new ZrXMLDoubleZrAttribute);
    e.AddAttribute("b", new ZrXMLBoolZrAttribute);
    EXPECT_EQ(Written(e), "<e />");
    try {
      e.SetAttribute("n", c.text);
      EXPECT_EQ(e.AttributeValue("n", ""), c.number);
    } catch (const std::exception& failure) {
      EXPECT_STREQ(failure.what(), c.number);
      // The same text through the other operation counts as 0.
      e.Attribute("n")->SetFromText(c.text);
      EXPECT_EQ(e.AttributeValue("n", ""), "0");
    }
    e.SetAttribute("b", c.text);
    EXPECT_EQ(e.AttributeValue("b", ""), c.truth);
    e.Attribute("b")->SetFromText(nullptr);
    EXPECT_FALSE(e.Attribute("b")->IsSet());
  }
  std::locale::global(before);
}

// That a path finds what a plain recursion over its steps finds is the fuzz target's; its corpus
// has the odd paths.
TEST(XmlElement, QueryFindsInDocumentOrderWithinItsBounds) {
  const auto root =
      Tree("<r><p n='a'><q k/><q k='1'/></p><p n='b.c'><q k='1'/></p><s nx='a' t='\\]\"'/></r>");
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"r.p[n=a]", "p[n=a](q[k=true] q[k=1]) "},
      {"p[n=\"b.c\"].q[k]", "q[k=1] "},
      {"p.q", "q[k=true] q[k=1] q[k=1] "},
      {"p[n=a]xq", "q[k=true] q[k=1] "},  // whatever follows the bracket separates
      {"p[n=a].", ""},                    // and nothing follows this one
      {"s[t=\"\\\\]\\\"\"]", "s[nx=a t=\\]\"] "},
      {"s[t=\"\\\\]\"]", ""},
      {"s[n\"=\"x=a]", "s[nx=a t=\\]\"] "},  // "=" is stored nowhere
      {"p[]", ""},
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

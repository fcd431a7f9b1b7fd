#include "markup/complex_element.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <thread>

#include "tests/markup/dump.h"

namespace {

using namespace zrtest;

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

TEST(ComplexElement, WritingFollowsTheOwnLineRuleAndTheFlags) {
  EXPECT_EQ(Written(*Tree("<a><b/><c/></a>")), "<a>\n<b />\n<c />\n</a>");
  EXPECT_EQ(Written(*Tree("<a>x<b/></a>")), "<a>x<b />\n</a>");
  EXPECT_EQ(Written(*Tree("<a><b/>x</a>")), "<a>\n<b />x</a>");
  EXPECT_EQ(Written(*Tree("<a> <b/> <c/> </a>")), "<a> <b /> <c /> </a>");
  EXPECT_EQ(Written(*Tree("<a><!--c--><b/><?p?></a>")), "<a><!--c--><b /><?p?></a>");
  EXPECT_EQ(Written(*Tree("<a z y='1' x=\"'<>&\"/>")), "<a x=\"'<>&\" y=\"1\" z=\"true\" />");

  const auto a = Element("a");
  a->SetSelfClosesWhenEmpty(false);
  EXPECT_EQ(Written(*a), "<a></a>");
  a->AddAttribute("bare", nullptr);
  a->AddAttribute("unset", new ZrXMLStringZrAttribute);
  a->Adopt(std::make_unique<ZrXMLGenericText>("a text of more than fifteen bytes"));
  EXPECT_EQ(Written(*a), "<a bare>a text of more than fifteen bytes</a>");
  a->SetClosed(true);
  std::ostringstream wide;
  wide.width(20);
  a->Write(wide);
  EXPECT_EQ(wide.str(), "<a bare />");
}

TEST(ComplexElement, RefusedChildrenHaveOneOwner) {
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

  // A wrapper that refuses leaves everything as it was.
  Noting wrapper("wrapper", log);
  wrapper.refuses = true;
  ZrXMLComplexElement* const inner = tree.Children().front();
  EXPECT_THROW(tree.WrapChild(inner, &wrapper), ZrException);
  EXPECT_TRUE(inner->Parent() == &tree && !wrapper.Parent() && wrapper.Children().empty());

  // A replacement that is refused stays, the old child is gone.
  EXPECT_THROW(tree.ReplaceChild(inner, Element("new").release()), ZrException);
  EXPECT_EQ(Dump(tree), "tree(new)");
}

// Each operation at each place costs the same: with 160,000 children these took minutes otherwise.
TEST(ComplexElement, ManyChildrenComeAndGoAnywhere) {
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
TEST(ComplexElement, NodesThatAreNotFreeAreRefused) {
  const auto tree = Tree("<t><a k='1'><b/></a><c/></t>");
  ZrXMLComplexElement* const a = tree->Children().front();
  ZrXMLComplexElement* const b = a->Children().front();
  ZrXMLComplexElement* const c = tree->Children().back();
  const auto free = Element("free");
  constexpr char kParent[] = "the node has a parent";
  constexpr char kBelow[] = "a node can't be put below itself";
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {kParent, [&] { tree->AddChild(a); }},
      {kParent, [&] { tree->AddChildFront(c); }},
      {kParent, [&] { tree->InsertChild(a, c); }},
      {kParent, [&] { tree->SetOnlyChild(c); }},
      {kParent, [&] { tree->ReplaceChild(a, a); }},
      {kParent, [&] { tree->WrapChild(a, c); }},
      {kParent, [&] { tree->WrapChild(a, a); }},
      {kParent, [&] { tree->PutByAttribute(a->AsGeneric(), "k", "1"); }},
      {kParent, [&] { tree->PutByAttribute(c->AsGeneric(), "k", "none"); }},
      {kParent, [&] { tree->ReplaceByAttribute(b->AsGeneric(), "k", "1"); }},
      {kBelow, [&] { b->AddChild(tree.get()); }},
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

TEST(ComplexElement, HooksMayChangeTheListTheyAreCalledFor) {
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

TEST(ComplexElement, DestructionGoesInDocumentOrderAndTellsObservers) {
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

TEST(ComplexElement, AnyDepthIsDestroyedWithoutRecursion) {
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
}

TEST(ComplexElement, TreesMoveBetweenThreads) {
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

}  // namespace

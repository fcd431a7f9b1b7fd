#include "markup/node_memory.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "tests/markup/dump.h"

namespace {

using Node = std::unique_ptr<ZrXMLComplexElement>;
using zrtest::Dump;
using zrtest::Repeated;
using zrtest::Tree;

// Long enough for a few chunks, with pieces that have chunks of their own.
std::string Document() {
  const std::string text = Repeated("long", 1000);
  return "<?decl?><!--" + text + "--><r><first a='1' b='" + text +
         "'>one <deep>two</deep></first>" + Repeated("<x y='z'>word word</x>\n", 500) + text +
         "<last/></r> ";
}

struct Observer : ZrElementObserver {
  void ElementGoesAway(ZrXMLComplexElement& element) noexcept override { gone = element.Name(); }
  std::string gone;
};

ZrXMLGenericElement* First(const Node& tree) { return tree->Children().front()->AsGeneric(); }

Node Take(ZrXMLComplexElement* from, ZrXMLComplexElement* node) {
  from->RemoveChild(node);
  return Node(node);
}

// Whatever is done to a tree that was read, it is freed once and whole, and what was taken out of
// it stays; the sanitizers look on. Each action answers what outlives the tree.
TEST(NodeMemory, ATreeThatWasReadMayBeChangedInAnyWay) {
  Observer observer;
  const struct {
    const char* name;
    std::function<Node(Node&)> act;
    std::string left;
  } kCases[] = {
      {"nothing", [](Node&) { return Node(); }, ""},
      {"a node is taken", [](Node& tree) { return Take(tree.get(), tree->Children().back()); },
       "last"},
      {"one with a subtree is taken and changed",
       [](Node& tree) {
         Node taken = Take(tree.get(), First(tree));
         taken->AsGeneric()->SetAttribute("b", "short");
         taken->AddChild(zrtest::Element("new").release());
         return taken;
       },
       "first[a=1 b=short]('one' {.} deep('two') new)"},
      {"one from below",
       [](Node& tree) { return Take(First(tree), First(tree)->Children().back()); }, "deep('two')"},
      {"a node goes into another tree",
       [](Node& tree) {
         Node other = Tree("<other>x</other>");
         other->Adopt(Take(tree.get(), First(tree)))->AsGeneric()->RemoveAttribute("b");
         return other;
       },
       "other('x' first[a=1]('one' {.} deep('two')))"},
      {"the tree goes into another one, whose rest goes into it",
       [](Node& tree) {
         Node other = Tree("<other>x</other>");
         Node rest = Take(other.get(), other->Children().front());
         First(tree)->SetOnlyChild(rest.release());
         ZrXMLComplexElement* const put = other->Adopt(std::move(tree));
         return Take(put, put->Children().front());
       },
       "first[a=1 b=" + Repeated("long", 1000) + "]('x')"},
      {"an attribute is changed through its object",
       [](Node& tree) {
         First(tree)->Attribute("a")->SetFromString(Repeated("set", 2000));
         return Node();
       },
       ""},
      {"values, errors, many attributes",
       [](Node& tree) {
         First(tree)->Value("a value of its own that is long enough");
         First(tree)->AssignAttributeText("b=");
         for (int i = 0; i < 60; ++i) First(tree)->SetAttribute("m" + std::to_string(i), "v");
         return Node();
       },
       ""},
      {"children are replaced, wrapped, deleted",
       [](Node& tree) {
         tree->ReplaceChild(tree->Children().back(), zrtest::Element("new").release());
         tree->WrapChild(First(tree), zrtest::Element("wrapper").release());
         First(tree)->DeleteChildren();
         delete tree->Children().back();
         return Node();
       },
       ""},
      {"somebody watches",
       [&observer](Node& tree) {
         First(tree)->SetObserver(&observer);
         return Node();
       },
       ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Node tree = Tree(Document());
    const Node left = c.act(tree);
    // What outlives the tree may do so on another thread.
    std::thread([gone = std::move(tree)]() mutable { gone.reset(); }).join();
    EXPECT_EQ(left == nullptr ? "" : Dump(*left), c.left);
  }
  EXPECT_EQ(observer.gone, "first");
}

TEST(NodeMemory, AChildlessTreeAndOneInAnotherGo) {
  Tree("<a/>");
  Tree("<a b='c'/>");
  const Node outer = Tree("<a><b/></a>");
  outer->Adopt(Node(Tree(Document()).release()));
  EXPECT_EQ(outer->Children().size(), 2u);
  std::istringstream unfinished("<a><b>" + Document() + "< ");
  std::string error;
  EXPECT_EQ(zr::ParseStream(unfinished, "xml", error), nullptr);
}

}  // namespace

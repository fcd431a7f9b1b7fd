#include "velkoro/documents.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <sstream>

#include "tests/markup/dump.h"
#include "tests/support/temporary_folder.h"

namespace {

using velkoro::Document;
using velkoro::DocumentError;
using velkoro::DocumentKind;
using velkoro::Element;
using velkoro::Node;
using velkoro::Part;

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const DocumentError& e) {
    return std::to_string(e.Line()) + " " + e.what();
  }
  return "nothing thrown";
}

std::string Names(const std::vector<Element>& elements) {
  std::string names;
  for (const Element& e : elements) names += e.Attribute("n", e.Name()) + " ";
  return names;
}

TEST(Document, WhatIsReadIsWrittenAsItWas) {
  constexpr std::pair<DocumentKind, const char*> kCases[] = {
      {DocumentKind::kXml,
       "<?xml version=\"1.0\"?>\n<!DOCTYPE a [<!ELEMENT a (b)> ]>\n<!-- c -->\n"
       "<x:a xmlns:x=\"u\"><b.c /> two  words <![CDATA[<&]]><d>e</d></x:a>\n<!-- end -->\n"},
      {DocumentKind::kHtml,
       "<!doctype html>\n<html><head><title>a < b &amp; c</title><style>p > a { x: y }</style>"
       "<script>if (a</b/.test(c) && d<e) f(\"</scr\" + \"ipt>\");</script></head><body>"
       "<p class=\"c\">one<br />two <b>words</b>.</p><form><option>o</option></form>"
       "<textarea><b></textarea><i></i></body></html>\n<!-- end -->"},
      {DocumentKind::kHtml, "just <b>a part</b> of <i>a page</i>"},
      {DocumentKind::kHtml, ""},
  };
  for (const auto& [kind, text] : kCases) {
    const Document document = Document::ReadText(text, kind);
    EXPECT_EQ(document.Text(), text);
  }
  const auto page = [](const char* text) {
    return Document::ReadText(text, DocumentKind::kHtml).Text();
  };
  EXPECT_EQ(page("<DIV ID=x checked><BR>a<img src='\"'></Div >"),
            "<div ID=\"x\" checked=\"true\"><br />a<img src=\"&quot;\" /></div>");
  EXPECT_EQ(page("<a href=/x?a=1>1 < 2, 3 <4</a><"),
            "<a href=\"/x?a=1\">1 &lt; 2, 3 &lt;4</a>&lt;");
  EXPECT_EQ(Document::ReadText("\xef\xbb\xbf<a  b = 'c\"' ></a >").Text(), "<a b=\"c&quot;\" />");
}

TEST(Document, MalformedInputIsRefusedWithItsPlace) {
  constexpr struct {
    const char* text;
    const char* error;
    DocumentKind kind = DocumentKind::kXml;
  } kCases[] = {
      {"<a>\n<b></a>", "2 f.xml:2: wrong closing tag '/a' instead '/b'"},
      {"<a>\n<b>\n", "3 f.xml:3: the element 'b' is not closed"},
      {"<a>\n<!-- \n\n\n", "2 f.xml:2: neither a tag nor a text"},
      {"<a>\n</a>\n<!-- \n --> <b/>\n", "4 f.xml:4: the document has more than one root"},
      {"<a/><b/>", "1 f.xml:1: the document has more than one root"},
      {"<a/>\n\ntext\n", "3 f.xml:3: the text 'text' stands outside of the root"},
      {"", "1 f.xml:1: the document has no root"},
      {"<!-- -->\n", "2 f.xml:2: the document has no root"},
      {"</a>", "1 f.xml:1: wrong closing tag '/a' instead '/nothing'"},
      {"<p>\n<b>x</p>", "2 f.xml:2: wrong closing tag '/p' instead '/b'", DocumentKind::kHtml},
      {"<script>x", "1 f.xml:1: neither a tag nor a text", DocumentKind::kHtml},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(ErrorOf([&] { Document::ReadText(c.text, c.kind, "f.xml"); }), c.error);
    std::istringstream stream(c.text);
    EXPECT_EQ(ErrorOf([&] { Document::ReadStream(stream, c.kind, "f.xml"); }), c.error);
  }
}

TEST(Document, TextsAndValuesAreWhatAReaderSees) {
  Document document("a");
  Element a = document.Root();
  a.Set("v", "<\"'&>");
  a.SetText("1 < 2 & 3");
  EXPECT_EQ(document.Text(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<a v=\"&lt;&quot;&apos;&amp;&gt;\">1 &lt; 2 &amp; 3</a>\n");
  EXPECT_TRUE(a.Attribute("v") == "<\"'&>" && a.Text() == "1 < 2 & 3");
  EXPECT_TRUE(a.Attributes().size() == 1 && a.Unset("v") && !a.Unset("v") && !a.Attribute("v"));
  document = Document::ReadText("<a>two <b>words</b><![CDATA[ &lt;]]><!-- c --> &#xe4;</a>");
  EXPECT_EQ(document.Root().Text(), "two words &lt; \xc3\xa4");
  constexpr std::pair<const char*, const char*> kReferences[] = {
      {"&#65;&#x1F600;&#x20ac;", "A\xf0\x9f\x98\x80\xe2\x82\xac"},
      {"&nbsp; & &; &#; &#x; &#0; &#xd800; &#x110000; &#99999999999;",
       "&nbsp; & &; &#; &#x; &#0; &#xd800; &#x110000; &#99999999999;"},
      {"&amp;lt;", "&lt;"},
      {"&&lt", "&&lt"}};
  for (const auto& [text, plain] : kReferences) EXPECT_EQ(velkoro::Unescape(text), plain);
}

TEST(Document, ElementsAreFoundInOrderAndOnce) {
  const Document document = Document::ReadText(
      "<r><a n='1' k='x'><b n='2'/><a n='3'><b n='4' k=\"y z\"/></a></a> <c n='5' class=''/>"
      "<a n='6'/></r>");
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"r/a", "1 6 "},    {"//b", "2 4 "},   {"//a//b", "2 4 "},  // though two elements lead to it
      {"r//a", "1 3 6 "}, {"r/*", "1 5 6 "}, {"//*[class=\"\"]", "5 "}, {"//b[k='y z'][n=4]", "4 "},
      {"a", ""},
  };
  for (const auto& [path, expected] : kCases) {
    EXPECT_EQ(Names(document.Query(path)), expected) << path;
    const Element first = document.QueryFirst(path);
    EXPECT_EQ(first ? Names({first}) : "", std::string(expected).substr(0, 2)) << path;
  }
  const Element r = document.Root();
  EXPECT_EQ(Names(r.Children("a")) + Names(r.Children()), "1 6 1 5 6 ");
  EXPECT_EQ(Names({r.First("c"), r.First()}), "5 1 ");
  EXPECT_FALSE(r.First("none") || r.QueryFirst("none"));
  for (const char* path : {"", "/", "a/", "///a", "a[", "a[b", "a[b=\"c]", "a[]", "a]", "a.[b]c"}) {
    EXPECT_EQ(ErrorOf([&] { (void)r.Query(path); }),
              "0 the path '" + std::string(path) + "' can't be read");
  }
  EXPECT_NE(ErrorOf([&] { (void)r.Query(zrtest::Repeated("a/", 60) + "a"); }), "nothing thrown");
}

TEST(Document, NodesArePutTakenAndCopied) {
  Document document = Document::ReadText("<r><a/><b>x</b></r>");
  Element r = document.Root();
  Element b = r.First("b");
  b.InsertBefore(Part::Text("t"));
  b.InsertAfter(b.Copy());
  Part a = r.First("a").Remove();
  EXPECT_EQ(r.Markup(), "<r>t<b>x</b><b>x</b></r>");
  a.GetElement().Set("k", "v");
  EXPECT_TRUE(b.AsElement().Add(std::move(a)));
  Part old = b.Next().Replace(Part::Markup("<n><m/></n>"));
  EXPECT_EQ(old.Get().Markup(), "<b>x</b>");
  EXPECT_EQ(r.Markup(), "<r>t<b>x<a k=\"v\" /></b><n><m /></n></r>");
  EXPECT_TRUE(b.Parent() == r && !r.Parent() && b.Next().Previous() == b);
  r.InsertBefore(Part::Comment(" first "));
  r.InsertAfter(Part::Instruction("last"));
  EXPECT_EQ(document.Nodes().size(), 3u);
  // The tree may change while a list is gone through.
  for (Element e : document.Query("//*")) {
    if (e != r && e.Parent() == r) old = e.Remove();
  }
  EXPECT_EQ(document.Text(), "<!-- first --><r>t</r><?last?>");
  // Handles outlive a move of their document.
  Document moved = std::move(document);
  old = r.Nodes().front().Replace(Part::Element("done"));
  EXPECT_EQ(moved.Text(), "<!-- first --><r><done /></r><?last?>");
  old = r.Replace(Part::Element("other"));
  EXPECT_EQ(moved.Root().Name(), "other");
}

TEST(Document, MisuseIsRefusedAndChangesNothing) {
  Document document = Document::ReadText("<r><a/></r>");
  Document page("html", DocumentKind::kHtml);
  Element script = page.Root().Add("script");
  Part part = Part::Element("p");
  Part empty;
  Document gone("a");
  const Document kept = std::move(gone);
  Element r = document.Root();
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {"0 the part is empty: its node was put somewhere already", [&] { r.Add(std::move(empty)); }},
      {"0 nothing can be put beside the top of a part",
       [&] { part.Get().InsertAfter(Part::Text("x")); }},
      {"0 the node stands in nothing that it could be taken from",
       [&] { (void)part.Get().Remove(); }},
      {"0 a text can't stand beside the root", [&] { document.Add(Part::Text("b")); }},
      {"0 'a b' is no name", [&] { r.Add("a b"); }},
      {"0 '1' is no name", [&] { Document("1"); }},
      {"0 the element 'br' takes no content", [&] { page.Root().Add("br").AddText("x"); }},
      {"0 the text would end the element 'script'", [&] { script.SetText("</Script"); }},
      {"0 a comment can't hold \"--\" or end in \"-\"", [&] { Part::Comment("a--b"); }},
      {"0 a comment can't begin with \">\" or \"->\"", [&] { Part::Comment("><script>"); }},
      {"0 the document was moved away", [&] { (void)gone.Root(); }},
      {"0 the element 'p' is one of XML and would be written wrongly in a page",
       [&] { page.Root().Add(std::move(part)); }},
      {"0 an instruction can't hold \"?>\"", [&] { Part::Instruction("?>"); }},
      {"0 the markup holds more than one element",
       [&] { Part::Markup("<a></a><b></b>", DocumentKind::kHtml); }},
      {"1 markup:1: the element 'a' is not closed", [&] { Part::Markup("<a>"); }},
      {"0 a node can't be put below itself", [&] { part.GetElement().Add(std::move(part)); }},
  };
  for (const auto& [error, action] : kCases) EXPECT_EQ(ErrorOf(action), error);
  EXPECT_EQ(document.Text(), "<r><a /></r>");
  r.Add(std::move(part));
}

TEST(Document, FilesAreWrittenWholeOrNotAtAll) {
  const zrtest::TemporaryFolder directory;
  const std::string path = directory.Path("a.xml");
  Document document("a");
  document.WriteFile(path);
  // A file keeps its permission and stays where a link leads.
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  ASSERT_EQ(::symlink("a.xml", directory.Path("link").c_str()), 0);
  document.Root().Add("b");
  document.WriteFile(directory.Path("link"));
  EXPECT_EQ(Document::ReadFile(path).Text(), document.Text());
  struct stat status {};
  ASSERT_EQ(::lstat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
  EXPECT_EQ(ErrorOf([&] { document.WriteFile("/nonexistent/a.xml"); }),
            "0 /nonexistent/a.xml: No such file or directory");
  EXPECT_EQ(ErrorOf([&] { Document::ReadFile(directory.Path()); }).substr(0, 3), "0 /");
}

TEST(Document, AnyDepthIsWrittenCopiedAndSearched) {
  Document document("e");
  Element deepest = document.Root();
  for (int i = 0; i < 50'000; ++i) deepest = deepest.Add("e");
  const Document copy = document.Copy();
  EXPECT_EQ(copy.Text().size(), document.Text().size());
  EXPECT_EQ(copy.Query("//e").size(), 50'001u);
}

}  // namespace

// The tags and their groups, compared with a list of this test's own.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <typeindex>
#include <vector>

#include "host/zrexception.h"
#include "html/zrhtmldocument2.h"
#include "html/zrhtmldtd.h"
#include "html/zrhtmlelements.h"
#include "html/zrhtmlformelements.h"
#include "html/zrhtmlplainelements.h"
#include "tests/html/reading.h"

namespace {

// clang-format off
#define TYPE_0(T) \
  T(a) T(abbr) T(acronym) T(address) T(article) T(aside) T(audio) T(b) T(bdi) T(bdo) T(big) \
  T(blockquote) T(canvas) T(caption) T(cite) T(code) T(datalist) T(del) T(details) T(dfn) \
  T(dialog) T(dl) T(em) T(fieldset) T(figcaption) T(footer) T(frameset) T(h1) T(h3) T(h4) T(h5) \
  T(h6) T(head) T(header) T(hgroup) T(html) T(i) T(iframe) T(ins) T(kbd) T(legend) T(main) T(map) \
  T(mark) T(menu) T(menuitem) T(meter) T(nav) T(noframes) T(noscript) T(object) T(ol) T(optgroup) \
  T(output) T(pre) T(q) T(rp) T(rt) T(ruby) T(s) T(samp) T(script) T(section) T(select) T(small) \
  T(strong) T(style) T(sub) T(summary) T(sup) T(table) T(tbody) T(textarea) T(time) T(title) T(tt) \
  T(u) T(ul) T(var) T(video)
#define TYPE_0_A(T) T(h2) T(label) T(progress) T(span)
#define TYPE_0_AB(T) T(button) T(form)
#define TYPE_0_ABC(T) T(body) T(div)
#define TYPE_1(T) T(colgroup) T(dd) T(dt) T(li) T(option) T(td) T(tfoot) T(th) T(thead) T(tr)
#define TYPE_1_ABC(T) T(p)
#define TYPE_2(T) \
  T(area) T(base) T(br) T(col) T(embed) T(frame) T(hr) T(img) T(input) T(keygen) T(link) T(meta) \
  T(param) T(source) T(track) T(wbr)
// clang-format on

struct Row {
  std::string tag;
  std::string kinds;  // "0", "1" or "2", then "A", "B", "C"
  std::unique_ptr<ZrHTML_BaseElement2> element;
};

std::string KindsOf(const ZrXMLComplexElement& element) {
  std::string kinds;
  if (dynamic_cast<const ZrHTML_ElementType0*>(&element) != nullptr) kinds += '0';
  if (dynamic_cast<const ZrHTML_ElementType1*>(&element) != nullptr) kinds += '1';
  if (dynamic_cast<const ZrHTML_ElementType2*>(&element) != nullptr) kinds += '2';
  if (dynamic_cast<const ZrHTML_ElementType0A*>(&element) != nullptr) kinds += 'A';
  if (dynamic_cast<const ZrHTML_ElementType0B*>(&element) != nullptr) kinds += 'B';
  if (dynamic_cast<const ZrHTML_ElementType0C*>(&element) != nullptr) kinds += 'C';
  return kinds;
}

std::vector<Row> AllTags() {
  std::vector<Row> rows;
#define ROW(kinds, tag) rows.push_back({#tag, kinds, std::make_unique<ZrHTML_##tag##2>()});
#define ROW_0(tag) ROW("0", tag)
#define ROW_0A(tag) ROW("0A", tag)
#define ROW_0AB(tag) ROW("0AB", tag)
#define ROW_0ABC(tag) ROW("0ABC", tag)
#define ROW_1(tag) ROW("1", tag)
#define ROW_1ABC(tag) ROW("1ABC", tag)
#define ROW_2(tag) ROW("2", tag)
  TYPE_0(ROW_0)
  TYPE_0_A(ROW_0A)
  TYPE_0_AB(ROW_0AB)
  TYPE_0_ABC(ROW_0ABC)
  TYPE_1(ROW_1)
  TYPE_1_ABC(ROW_1ABC)
  TYPE_2(ROW_2)
  return rows;
}

TEST(HtmlTags, EachTagHasAClassOfItsOwnInItsGroup) {
  const std::vector<Row> rows = AllTags();
  EXPECT_EQ(rows.size(), 115u);
  std::set<std::type_index> classes;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.tag);
    const ZrHTML_BaseElement2& element = *row.element;
    EXPECT_EQ(element.Name(), row.tag);
    EXPECT_EQ(KindsOf(element), row.kinds);
    ZrHTML_br2 child;
    if (row.kinds == "2") {
      EXPECT_THROW(row.element->AddChild(&child), ZrException);
      EXPECT_EQ(child.Parent(), nullptr) << "the caller still owns it";
    } else {
      EXPECT_FALSE(element.IsClosed());
    }
    EXPECT_TRUE(element.OwnLine());
    EXPECT_TRUE(classes.insert(typeid(element)).second);
  }
}

TEST(HtmlTags, TheReaderMakesTheSameClasses) {
  for (const char* kind : {"html", "xmlhtml"}) {
    SCOPED_TRACE(kind);
    zr::test::Reading reading(kind, "");
    ZrDTD& dtd = reading.Kind();
    std::set<std::string, std::less<>> voids;
    std::set<std::string> tags;
    for (const Row& row : AllTags()) {
      SCOPED_TRACE(row.tag);
      const auto made = zr::CreateElement(dtd, row.tag);
      const ZrHTML_BaseElement2& expected = *row.element;
      const ZrXMLGenericElement& element = *made;
      EXPECT_EQ(std::type_index(typeid(element)), std::type_index(typeid(expected)));
      tags.insert(row.tag);
      if (row.kinds == "2") voids.insert(row.tag);
    }
    EXPECT_EQ(dtd.TagFactories().size(), tags.size());
    EXPECT_EQ(dtd.VoidNames(), voids);
    for (const char* unknown : {"blink", "DIV", ""}) {
      const auto made = zr::CreateElement(dtd, unknown);
      EXPECT_EQ(made->Name(), unknown);
      EXPECT_TRUE(made->OwnLine());
      const ZrXMLGenericElement& element = *made;
      EXPECT_EQ(std::type_index(typeid(element)), std::type_index(typeid(ZrXMLGenericElement)));
    }
  }
}

}  // namespace

// The tags and their groups, compared with a list of this test's own.

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <typeindex>
#include <vector>

#include "base/exception.h"
#include "html/form_elements.h"
#include "html/html_document.h"
#include "html/html_dtd.h"
#include "html/html_elements.h"
#include "html/plain_elements.h"
#include "markup/element_reader_stream.h"

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
  const char* kinds = nullptr;
#define ROW(tag) rows.push_back({#tag, kinds, std::make_unique<ZrHTML_##tag##2>()});
#define ROWS(group, TAGS) \
  kinds = group;          \
  TAGS(ROW)
  ROWS("0", TYPE_0)
  ROWS("0A", TYPE_0_A)
  ROWS("0AB", TYPE_0_AB)
  ROWS("0ABC", TYPE_0_ABC)
  ROWS("1", TYPE_1)
  ROWS("1ABC", TYPE_1_ABC)
  ROWS("2", TYPE_2)
  return rows;
}

std::type_index ClassOf(const ZrXMLGenericElement& element) { return typeid(element); }

TEST(HtmlTags, EachHasAClassOfItsOwnInItsGroupThatTheReaderMakes) {
  std::istringstream nothing;
  ZrDTDElementReaderStream reader(nothing, zr::HtmlDocumentKinds());
  ZrDTD* const dtds[] = {reader.FindDTD("html"), reader.FindDTD("xmlhtml")};
  std::set<std::type_index> classes;
  std::set<std::string, std::less<>> voids;
  for (const auto& [tag, kinds, element] : AllTags()) {
    SCOPED_TRACE(tag);
    EXPECT_EQ(element->Name(), tag);
    EXPECT_EQ(KindsOf(*element), kinds);
    EXPECT_TRUE(element->OwnLine());
    EXPECT_EQ(element->IsClosed(), kinds == "2");
    EXPECT_TRUE(classes.insert(ClassOf(*element)).second);
    for (ZrDTD* const dtd : dtds) {
      EXPECT_EQ(ClassOf(*zr::CreateElement(*dtd, tag)), ClassOf(*element));
    }
    if (kinds != "2") continue;
    voids.insert(tag);
    ZrHTML_br2 child;
    EXPECT_THROW(element->AddChild(&child), ZrException);
    EXPECT_EQ(child.Parent(), nullptr) << "the caller still owns it";
  }
  EXPECT_EQ(classes.size(), 115u);
  for (ZrDTD* const dtd : dtds) {
    EXPECT_EQ(dtd->TagFactories().size(), 115u);
    EXPECT_EQ(dtd->VoidNames(), voids);
    for (const char* unknown : {"blink", "DIV", ""}) {
      const auto element = zr::CreateElement(*dtd, unknown);
      EXPECT_EQ(element->Name(), unknown);
      EXPECT_TRUE(element->OwnLine());
      EXPECT_EQ(ClassOf(*element), typeid(ZrXMLGenericElement));
    }
  }
}

}  // namespace

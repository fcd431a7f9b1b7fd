#pragma once
// The classes of the HTML tags that have nothing of their own: ZrHTML_br2, ZrHTML_table2 and so on,
// one for each PLAIN row of the tag table. Each is built without arguments.

#include "html/html_element_types.h"
#include "html/html_tags.h"

// clang-format off
#define ZR_HTML_CLASS(tag, group)                                         \
  class ZrHTML_##tag##2 : public zr::html::group {                        \
   public:                                                                \
    ZrHTML_##tag##2() : Group(zr::html::NodeName<ZrHTML_##tag##2>(#tag)) {} \
  };
// clang-format on
#define ZR_HTML_NOTHING(tag, group)
ZR_HTML_TAGS(ZR_HTML_CLASS, ZR_HTML_NOTHING)
#undef ZR_HTML_CLASS
#undef ZR_HTML_NOTHING

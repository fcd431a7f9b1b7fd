#include "markup/document_kinds.h"

#include <string>

#include "markup/document_text.h"
#include "markup/read_transaction.h"
#include "markup/reader_state_bracketed.h"
#include "markup/reader_state_element.h"
#include "markup/reader_state_text.h"
#include "markup/write.h"

namespace zr {

namespace {

using FacadeNode = std::unique_ptr<ZrXMLComplexElement>;

constexpr ByteSet kNoBracket = ByteSet("[]>").Inverted();
constexpr ByteSet kNoLess = ByteSet("<").Inverted();
constexpr ByteSet kBeginsNothing = ByteSet(kXmlNameStart).Add("/!?").Inverted();

const ZrPermanentName kDoctypeName("doctype");
const ZrPermanentName kCdataName("cdata");

// The tags whose content is text, with the kinds of their content.
constexpr struct {
  const char* tag;
  const char* kind;
} kRaw[] = {{"script", "content-script"},
            {"style", "content-style"},
            {"textarea", "content-textarea"},
            {"title", "content-title"}};

const char* RawKind(std::string_view tag) {
  for (const auto& raw : kRaw)
    if (tag == raw.tag) return raw.kind;
  return nullptr;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return lower;
}

// "document-doctype": "<!DOCTYPE" in any case, with an internal subset in brackets.
class DoctypeState : public ZrDTDElementRead {
 public:
  DoctypeState()
      : ZrDTDElementRead("document-doctype",
                         {.first = ByteSet("<"), .second = ByteSet("!"), .reusable = true}) {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<DoctypeState>();
  }
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    Begin();
    ReadTransaction input(reader);
    if (input.TakeLiteral("<!") && EqualsLower(input.TakeRun(kNameBytes), "doctype")) {
      for (int open = 0;;) {
        input.TakeLines(kNoBracket);
        if (input.TakeIf('[')) {
          ++open;
        } else if (input.TakeIf(']')) {
          --open;
        } else if (input.TakeIf('>')) {
          if (open > 0) continue;
          text_ = input.Taken();
          text_ = text_.substr(2, text_.size() - 3);
          return this;
        } else {
          break;
        }
      }
    }
    input.Undo();
    return nullptr;
  }
};

// "document-cdata".
class CdataState : public ZrDTDElementRead {
 public:
  CdataState()
      : ZrDTDElementRead("document-cdata",
                         {.first = ByteSet("<"), .second = ByteSet("!"), .reusable = true}) {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<CdataState>();
  }
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    Begin();
    ReadTransaction input(reader);
    if (input.TakeLiteral("<![CDATA[")) {
      if (const auto inside = input.TakeThrough("]]>")) {
        text_ = *inside;
        return this;
      }
    }
    input.Undo();
    return nullptr;
  }
};

class XmlElementState : public ZrDTDElementRead_Element {
 public:
  XmlElementState() : ZrDTDElementRead_Element("document-element", Grammar::kXml) {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<XmlElementState>();
  }
};

class PageElementState : public ZrDTDElementRead_Element {
 public:
  PageElementState() : PageElementState("document-element") {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<PageElementState>();
  }
  bool ClosesElement(std::string_view name) const override {
    return !text_.empty() && EqualsLower(text_.substr(1), name);
  }

 protected:
  explicit PageElementState(const char* name) : ZrDTDElementRead_Element(name, Grammar::kPage) {}
};

// "document-a-void": the tags that take no content, so that nothing is put into them. Tried before
// the others.
class VoidElementState : public PageElementState {
 public:
  VoidElementState() : PageElementState("document-a-void") {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<VoidElementState>();
  }
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    bool isVoid = false;
    {
      ReadTransaction input(reader);
      isVoid = input.TakeIf('<') && IsVoidTag(Lower(input.TakeRun(kNameBytes)));
      input.Undo();
    }
    return isVoid ? PageElementState::Read(reader) : nullptr;
  }
};

// "document-less": a "<" that begins nothing.
class LoneLessState : public ZrDTDElementRead {
 public:
  LoneLessState()
      : ZrDTDElementRead("document-less",
                         {.first = ByteSet("<"), .second = kBeginsNothing, .reusable = true}) {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<LoneLessState>();
  }
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    Begin();
    ReadTransaction input(reader);
    if (input.TakeIf('<') && (input.Peek() < 0 || kBeginsNothing.Has(input.Peek()))) {
      text_ = input.Taken();
      return this;
    }
    input.Undo();
    return nullptr;
  }
};

FacadeNode EscapedLess(std::string_view, ZrDTD&) {
  return std::make_unique<ZrXMLGenericText>("&lt;");
}

// "content-text": everything up to the end tag of the element that the kind is for.
class RawTextState : public ZrDTDElementRead {
 public:
  explicit RawTextState(std::string_view tag)
      : ZrDTDElementRead("content-text", {.first = kAnyByte, .second = kAnyByte, .reusable = true}),
        end_("</" + std::string(tag)) {}
  std::unique_ptr<ZrDTDElementRead> Clone() const override {
    return std::make_unique<RawTextState>(std::string_view(end_).substr(2));
  }
  ZrDTDElementRead* Read(ZrDTDElementReader& reader) override {
    Begin();
    ReadTransaction input(reader);
    for (;;) {
      input.TakeLines(kNoLess);
      if (input.Peek() < 0) break;
      std::size_t matched = 0;
      while (matched < end_.size() && TakeLetter(input, end_[matched])) ++matched;
      if (matched != end_.size()) continue;
      input.GiveBack(matched);
      text_ = input.Taken();
      return text_.empty() ? nullptr : this;
    }
    input.Undo();
    return nullptr;
  }

 private:
  static bool TakeLetter(ReadTransaction& input, char lower) {
    return input.TakeIf(lower) ||
           (lower >= 'a' && lower <= 'z' && input.TakeIf(static_cast<char>(lower - 'a' + 'A')));
  }

  const std::string end_;
};

template <typename Node>
FacadeNode FacadeText(std::string_view text, ZrDTD&) {
  return std::make_unique<Node>(text);
}

FacadeNode PageElement(std::string_view text, ZrDTD& dtd) {
  return MakeFacadeElement(dtd.SharedName(Lower(text)), true);
}

void AddCommonStates(ZrDTD& dtd) {
  dtd.AddState(std::make_unique<DoctypeState>(), FacadeText<DoctypeNode>, false);
  dtd.AddState(std::make_unique<CdataState>(), FacadeText<CdataNode>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Comment>(), FacadeText<ZrXML_Comment2>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_ProcInst>(), FacadeText<ZrXML_ProcInst2>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_Text>(), FacadeText<ZrXMLGenericText>, false);
  dtd.AddState(std::make_unique<ZrDTDElementRead_WhitespaceText>(),
               FacadeText<ZrXMLGenericWhitespace>, false);
}

void FillXmlDocument(ZrDTD& dtd) {
  AddCommonStates(dtd);
  dtd.AddState(
      std::make_unique<XmlElementState>(),
      [](std::string_view text, ZrDTD& own) -> FacadeNode {
        return MakeFacadeElement(own.SharedName(text), false);
      },
      true);
  dtd.SetNodes(ZrDTD::Nodes::kPlainDocument);
}

void FillPageDocument(ZrDTD& dtd) {
  AddCommonStates(dtd);
  dtd.AddState(std::make_unique<LoneLessState>(), EscapedLess, false);
  dtd.AddState(std::make_unique<VoidElementState>(), PageElement, false);
  dtd.AddState(std::make_unique<PageElementState>(), PageElement, true);
  dtd.SetNodes(ZrDTD::Nodes::kPlainTexts);
}

void FillRawContent(ZrDTD& dtd) {
  for (const auto& raw : kRaw)
    if (dtd.Name() == raw.kind)
      dtd.AddState(std::make_unique<RawTextState>(raw.tag), FacadeText<ZrXMLGenericText>, false);
  dtd.AddState(std::make_unique<PageElementState>(), PageElement, true);
  dtd.SetNodes(ZrDTD::Nodes::kPlain);
}

constexpr ZrDTDDefinition kFacadeKinds[] = {
    {kXmlDocument, FillXmlDocument}, {kPageDocument, FillPageDocument},
    {kRaw[0].kind, FillRawContent},  {kRaw[1].kind, FillRawContent},
    {kRaw[2].kind, FillRawContent},  {kRaw[3].kind, FillRawContent}};

}  // namespace

std::span<const ZrDTDDefinition> FacadeKinds() { return kFacadeKinds; }

std::unique_ptr<ZrXMLGenericElement> MakeFacadeElement(ZrNameView name, bool page) {
  if (!page) return std::make_unique<ZrXMLGenericElement>(name, false);
  if (const char* const kind = RawKind(name.text()))
    return std::make_unique<RawElement>(name, kind);
  auto element = std::make_unique<ZrXMLGenericElement>(name, false);
  element->SetSelfClosesWhenEmpty(false);
  if (IsVoidTag(name.text())) element->SetClosed(true);
  return element;
}

DoctypeNode::DoctypeNode(std::string_view text) : ZrXMLTextCarrier(kDoctypeName, text) {}

void DoctypeNode::Write(std::ostream& stream) const {
  TagWriter tag(stream);
  tag << "<!" << text() << '>';
  tag.Flush();
}

CdataNode::CdataNode(std::string_view text) : ZrXMLTextCarrier(kCdataName, text) {}

void CdataNode::Write(std::ostream& stream) const {
  TagWriter tag(stream);
  tag << "<![CDATA[" << text() << "]]>";
  tag.Flush();
}

RawElement::RawElement(ZrNameView name, const char* contentKind)
    : ZrXMLGenericElement(name, false), contentKind_(contentKind) {
  SetSelfClosesWhenEmpty(false);
}

std::string RawElement::Value(ZrNameView newValue) {
  std::string stored = ZrXMLGenericElement::Value(newValue);
  return newValue.empty() ? stored : contentKind_;
}

bool RawElement::IsCode() const { return Name() == "script" || Name() == "style"; }

}  // namespace zr

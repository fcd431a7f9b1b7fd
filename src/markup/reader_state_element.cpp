#include "markup/reader_state_element.h"

#include "base/exception.h"
#include "markup/read_transaction.h"

namespace {

// Quotes would have to be told apart from those that a value is written with.
constexpr zr::ByteSet kUnquoted = zr::ByteSet(" \t\r\n\"'<>").Inverted();

// The bytes of names.
template <bool plain>
struct Names {
  static constexpr const zr::ByteSet& kStart = plain ? zr::kNameStart : zr::kXmlNameStart;
  static constexpr const zr::ByteSet& kBytes = plain ? zr::kNameBytes : zr::kXmlNameBytes;
};

}  // namespace

ZrDTDElementRead_Element::ZrDTDElementRead_Element()
    : ZrDTDElementRead_Element("xmlelement", Grammar::kPlain) {}

ZrDTDElementRead_Element::ZrDTDElementRead_Element(std::string name, Grammar grammar)
    : ZrDTDElementRead(
          std::move(name),
          {.first = zr::ByteSet("<"),
           .second = zr::ByteSet(grammar == Grammar::kPlain ? zr::kNameStart : zr::kXmlNameStart)
                         .Add("/"),
           .reusable = true}),
      grammar_(grammar) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_Element::Clone() const {
  return std::make_unique<ZrDTDElementRead_Element>();
}

bool ZrDTDElementRead_Element::ClosesElement(std::string_view name) const {
  return !text_.empty() && text_.substr(1) == name;
}

template <ZrDTDElementRead_Element::Grammar grammar>
bool ZrDTDElementRead_Element::ReadAttribute(ReadTransaction& input, ZrDTDElementReader& reader) {
  const std::string_view name = input.TakeRun(Names<grammar == Grammar::kPlain>::kBytes);
  ZrDTDElementReader::AttributeRecord& record = reader.AddAttribute(name);
  if (grammar != Grammar::kPlain) input.TakeWhitespace();
  if (!input.TakeIf('=')) return grammar != Grammar::kXml;
  if (grammar != Grammar::kPlain) input.TakeWhitespace();
  record.bare = false;
  const bool doubled = input.TakeIf('"');
  if (!doubled && !input.TakeIf('\'')) {
    if (grammar != Grammar::kPage) return false;
    record.valueAt = input.Taken().size();
    record.valueLength = input.TakeRun(kUnquoted).size();
    return record.valueLength != 0;
  }
  record.valueAt = input.Taken().size();
  const auto value = input.TakeQuoted(doubled ? '"' : '\'');
  if (value) record.valueLength = value->size();
  return value.has_value();
}

template <ZrDTDElementRead_Element::Grammar grammar>
bool ZrDTDElementRead_Element::ReadRest(ReadTransaction& input, ZrDTDElementReader& reader) {
  reader.ClearAttributes();
  for (;;) {
    const int next = input.Peek();
    if (next == '>') return input.TakeIf('>');
    if (next == '/') {
      // A slash elsewhere would be part of an attribute's name, where it cannot stand.
      input.TakeIf('/');
      selfClosed_ = input.TakeIf('>');
      return selfClosed_;
    }
    if (zr::kWhitespace.Has(next))
      input.TakeWhitespace();
    else if (!Names<grammar == Grammar::kPlain>::kStart.Has(next) ||
             !ReadAttribute<grammar>(input, reader))
      return false;
  }
}

template <ZrDTDElementRead_Element::Grammar grammar>
ZrDTDElementRead_Element::Outcome ZrDTDElementRead_Element::ReadTag(ReadTransaction& input,
                                                                    ZrDTDElementReader& reader) {
  using Bytes = Names<grammar == Grammar::kPlain>;
  if (!input.TakeIf('<')) return Outcome::kNone;
  const bool endTag = input.TakeIf('/');
  if (!Bytes::kStart.Has(input.Peek())) return Outcome::kNone;
  nameLength_ = input.TakeRun(Bytes::kBytes).size() + (endTag ? 1 : 0);
  const int next = input.Peek();
  const bool blankAllowed = !endTag || grammar != Grammar::kPlain;
  if (next != '>' && next != '/' && !(blankAllowed && zr::kWhitespace.Has(next)))
    return Outcome::kIncomplete;
  return ReadRest<grammar>(input, reader) ? Outcome::kTag : Outcome::kNone;
}

ZrDTDElementRead* ZrDTDElementRead_Element::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  const Outcome outcome = grammar_ == Grammar::kPlain ? ReadTag<Grammar::kPlain>(input, reader)
                          : grammar_ == Grammar::kXml ? ReadTag<Grammar::kXml>(input, reader)
                                                      : ReadTag<Grammar::kPage>(input, reader);
  if (outcome == Outcome::kNone) {
    input.Undo();
    return nullptr;
  }
  const std::string_view taken = input.Taken();
  text_ = taken.substr(1, nameLength_);
  if (outcome == Outcome::kIncomplete)
    throw ZrException("incomplete tag '" + std::string(text_) + "'", 377, "src");
  reader.FinishAttributes(taken);
  return this;
}

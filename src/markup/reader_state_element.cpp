#include "markup/reader_state_element.h"

#include "base/exception.h"
#include "markup/read_transaction.h"

namespace {

constexpr zr::ByteSet kAfterOpening = zr::ByteSet("/_").AddRange('a', 'z').AddRange('A', 'Z');

}  // namespace

ZrDTDElementRead_Element::ZrDTDElementRead_Element()
    : ZrDTDElementRead("xmlelement",
                       {.first = zr::ByteSet("<"), .second = kAfterOpening, .reusable = true}) {}

std::unique_ptr<ZrDTDElementRead> ZrDTDElementRead_Element::Clone() const {
  return std::make_unique<ZrDTDElementRead_Element>();
}

bool ZrDTDElementRead_Element::ClosesElement(std::string_view name) const {
  return !text_.empty() && text_.substr(1) == name;
}

namespace {

bool ReadAttribute(ReadTransaction& input, ZrDTDElementReader& reader) {
  const std::string_view name = input.TakeRun(zr::kNameBytes);
  ZrDTDElementReader::AttributeRecord& record = reader.AddAttribute(name);
  if (!input.TakeIf('=')) return true;
  record.bare = false;
  const bool doubled = input.TakeIf('"');
  if (!doubled && !input.TakeIf('\'')) return false;
  record.valueAt = input.Taken().size();
  const auto value = input.TakeQuoted(doubled ? '"' : '\'');
  if (value) record.valueLength = value->size();
  return value.has_value();
}

}  // namespace

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
    if (zr::kWhitespace.Has(next)) {
      input.TakeWhitespace();
    } else if (!zr::kNameStart.Has(next) || !ReadAttribute(input, reader)) {
      return false;
    }
  }
}

ZrDTDElementRead_Element::Outcome ZrDTDElementRead_Element::ReadTag(ReadTransaction& input,
                                                                    ZrDTDElementReader& reader) {
  if (!input.TakeIf('<')) return Outcome::kNone;
  const bool endTag = input.TakeIf('/');
  if (!zr::kNameStart.Has(input.Peek())) return Outcome::kNone;
  nameLength_ = input.TakeRun(zr::kNameBytes).size() + (endTag ? 1 : 0);
  const int next = input.Peek();
  if (next != '>' && next != '/' && (endTag || !zr::kWhitespace.Has(next))) {
    return Outcome::kIncomplete;
  }
  return ReadRest(input, reader) ? Outcome::kTag : Outcome::kNone;
}

ZrDTDElementRead* ZrDTDElementRead_Element::Read(ZrDTDElementReader& reader) {
  Begin();
  ReadTransaction input(reader);
  const Outcome outcome = ReadTag(input, reader);
  if (outcome == Outcome::kNone) {
    input.Undo();
    return nullptr;
  }
  const std::string_view taken = input.Taken();
  text_ = taken.substr(1, nameLength_);
  if (outcome == Outcome::kIncomplete) {
    throw ZrException("incomplete tag '" + std::string(text_) + "'", 377, "src");
  }
  reader.FinishAttributes(taken);
  return this;
}

#include "markup/element_reader.h"

#include "base/exception.h"
#include "markup/reader_state_bracketed.h"
#include "markup/reader_state_element.h"
#include "markup/reader_state_text.h"
#include "markup/xml_nodes.h"

namespace {

template <class Node>
std::unique_ptr<ZrXMLComplexElement> MakeTextNode(std::string_view text, ZrDTD&) {
  return std::make_unique<Node>(text);
}

std::unique_ptr<ZrDTD> MakeXml(ZrNameTable& names) {
  static const ZrPermanentName kXml("xml");
  auto xml = std::make_unique<ZrDTD>(kXml, names);
  xml->AddState(std::make_unique<ZrDTDElementRead_Comment>(), MakeTextNode<ZrXML_Comment2>, false);
  xml->AddState(
      std::make_unique<ZrDTDElementRead_Element>(),
      [](std::string_view text, ZrDTD& dtd) -> std::unique_ptr<ZrXMLComplexElement> {
        return std::make_unique<ZrXMLGenericElement>(dtd.SharedName(text), true);
      },
      true);
  xml->AddState(std::make_unique<ZrDTDElementRead_ProcInst>(), MakeTextNode<ZrXML_ProcInst2>,
                false);
  xml->AddState(std::make_unique<ZrDTDElementRead_Text>(), MakeTextNode<ZrXMLGenericText>, false);
  xml->AddState(std::make_unique<ZrDTDElementRead_WhitespaceText>(),
                MakeTextNode<ZrXMLGenericWhitespace>, false);
  xml->SetNodes(ZrDTD::Nodes::kPlainXml);
  return xml;
}

}  // namespace

ZrDTDElementReader::ZrDTDElementReader(std::span<const ZrDTDDefinition> furtherKinds)
    : definitions_(furtherKinds) {
  AddDTD(MakeXml(names_));
}

ZrDTDElementReader::~ZrDTDElementReader() = default;

std::size_t ZrDTDElementReader::ReadBlock(char* to, std::size_t) {
  if (PeekChar() < 0) return 0;
  *to = static_cast<char>(GetChar());
  return 1;
}

void ZrDTDElementReader::KeepValues() {
  std::size_t size = 0;
  for (const AttributeRecord& record : attributes_) size += record.value.size();
  if (size == 0) return;
  auto kept = std::make_unique<char[]>(size);
  char* to = kept.get();
  for (AttributeRecord& record : attributes_) {
    record.value = std::string_view(to, record.value.copy(to, record.value.size()));
    to += record.value.size();
  }
  keptValues_ = std::move(kept);
}

void ZrDTDElementReader::AddDTD(std::unique_ptr<ZrDTD> dtd) {
  const std::string& name = dtd->Name().str();
  if (!dtds_.try_emplace(name, std::move(dtd)).second)
    throw ZrException("name can't be twice", 1122, "src");
}

ZrDTD* ZrDTDElementReader::FindDTD(std::string_view name) {
  if (const auto found = dtds_.find(name); found != dtds_.end()) return found->second.get();
  for (const ZrDTDDefinition& definition : definitions_) {
    if (definition.name != name) continue;
    auto dtd = std::make_unique<ZrDTD>(names_.Intern(definition.name), names_);
    definition.fill(*dtd);
    ZrDTD* const built = dtd.get();
    AddDTD(std::move(dtd));
    return built;
  }
  return nullptr;
}

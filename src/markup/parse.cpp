#include "markup/parse.h"

#include <stdexcept>
#include <utility>

#include "base/exception.h"
#include "markup/element_reader_stream.h"
#include "markup/plain_reader.h"

namespace {

// One call of Parse: what belongs to the current element, looked up once when it changes.
class Builder {
 public:
  Builder(ZrXMLContentSplitter& splitter, ZrDTDElementReader& reader)
      : splitter_(splitter), reader_(reader) {}

  void Run(bool stopAfterOne);

 private:
  void Use(ZrDTD::State& state);
  void Build(ZrDTD::State& state);
  void CloseCurrent(const ZrDTDElementRead& token);
  void Descend(ZrXMLComplexElement* node);
  // Makes D the active document kind unless it is already.
  void Switch(std::string_view name) {
    if (splitter_.dtdName == name) return;
    splitter_.dtdName = ZrName(name);
    dtd_ = nullptr;
  }
  void LookUp();
  std::string AroundLine() const { return " around line " + std::to_string(reader_.Line()); }

  ZrXMLContentSplitter& splitter_;
  ZrDTDElementReader& reader_;
  ZrDTD* dtd_ = nullptr;  // of splitter_.dtdName, null before it was looked up
  bool plain_ = false;    // whether zr::PlainReader knows it
  const ZrXMLComplexElement* judged_ = nullptr;  // the element that currentIsVoid_ is about
  bool currentIsVoid_ = false;
};

void Builder::LookUp() {
  dtd_ = reader_.FindDTD(splitter_.dtdName.str());
  if (dtd_ == nullptr)
    throw ZrException("DTD '" + splitter_.dtdName.str() + "' not defined", 986, "src");
  splitter_.dtdName = dtd_->Name();  // the same text, shared by all who keep it
  if (!dtd_->HasPlainNodes()) zr::NodePool::PartOpen();
  plain_ = zr::PlainReader::Knows(*dtd_);
  judged_ = nullptr;
}

void Builder::Run(bool stopAfterOne) {
  if (!reader_.HasUnread() && !reader_.Good()) throw ZrException("error in stream", 978, "src");
  for (bool used = false; !(used && stopAfterOne);) {
    if (!reader_.HasUnread() && reader_.AtEnd()) break;
    if (dtd_ == nullptr) LookUp();
    if (plain_ && !stopAfterOne && zr::PlainReader(splitter_, reader_, *dtd_).Run())
      judged_ = nullptr;
    ZrDTD::State* const state = dtd_->Recognise(reader_);
    if (state == nullptr) {
      if (!reader_.HasUnread() && reader_.AtEnd()) continue;
      throw ZrException("reading error ", 1095, "src");
    }
    ZrDTDElementRead& token = *state->prototype;
    Use(*state);
    if (!token.Reusable()) state->prototype = token.Clone();
    used = true;
  }
}

void Builder::Use(ZrDTD::State& state) {
  try {
    if (judged_ != splitter_.current) {
      judged_ = splitter_.current;
      currentIsVoid_ = !dtd_->VoidNames().empty() && dtd_->VoidNames().count(judged_->Name()) != 0;
    }
    const ZrDTDElementRead& token = *state.prototype;
    if (currentIsVoid_ || (!token.IsPlain() && token.IsClosing()))
      CloseCurrent(token);
    else
      Build(state);
  } catch (const ZrException&) {
    throw;
  } catch (...) {
    throw ZrException(
        "element type '" + state.prototype->Name() + "' not defined in DTD" + AroundLine(), 1083,
        "src");
  }
}

void Builder::CloseCurrent(const ZrDTDElementRead& token) {
  ZrXMLComplexElement* const current = splitter_.current;
  current->Completed();
  if (current->Parent() == nullptr || !token.ClosesElement(current->Name())) {
    throw ZrException("wrong closing tag '" + std::string(token.Text()) + "' instead '/" +
                          current->Name() + "'" + AroundLine(),
                      1022, "src");
  }
  const std::string outer = current->Value(std::string_view());
  splitter_.current = current->Parent();
  judged_ = nullptr;
  if (splitter_.depth != 0) --splitter_.depth;
  Switch(outer);
}

void Builder::Build(ZrDTD::State& state) {
  ZrDTDElementRead& token = *state.prototype;
  if (state.container && splitter_.depth >= ZrXMLContentSplitter::kMaxDepth)
    throw ZrException("elements nested deeper than 1000", 1047, "src");
  if (state.factory == nullptr) throw std::logic_error("the token makes no node");
  std::unique_ptr<ZrXMLComplexElement> node = state.factory(token.Text(), *dtd_);
  if (node == nullptr) throw ZrException("problem in DTD with '" + token.Name() + "'", 1041, "src");
  if (!token.IsPlain() && token.CarriesAttributes()) {
    if (ZrXMLGenericElement* const element = node->AsGeneric()) {
      element->ReserveAttributes(reader_.Attributes().size());
      for (const auto& record : reader_.Attributes())
        element->SetAttribute(record.name, record.bare ? std::string_view("true") : record.value);
    }
  }
  if (dtd_->HasPlainNodes()) node->MarkAsRead();
  ZrXMLComplexElement* const added = splitter_.current->Adopt(std::move(node));
  if (token.SelfClosed() || !state.container)
    added->Completed();
  else
    Descend(added);
}

void Builder::Descend(ZrXMLComplexElement* node) {
  const std::string inner = node->Value(splitter_.dtdName);
  splitter_.current = node;
  judged_ = nullptr;
  ++splitter_.depth;
  Switch(inner);
}

// The message with the line, unless it has one.
ZrException Located(const ZrException& error, int raisedAt, const ZrDTDElementReader& reader) {
  std::string text = error.what();
  if (text.find("around line") == std::string::npos)
    text += " around line " + std::to_string(reader.Line());
  return ZrException(std::move(text), raisedAt, "src");
}

}  // namespace

ZrXMLGenericElement* zr::Parse(ZrXMLContentSplitter& splitter, ZrDTDElementReader& reader,
                               std::string_view dtdName, bool stopAfterOne) {
  if (splitter.current == nullptr) throw ZrException("missing topelement", 959, "src");
  if (splitter.dtdName.empty()) {
    splitter.dtdName = ZrName(dtdName);
    splitter.top->Value(dtdName);
  }
  if (splitter.dtdName.empty()) throw ZrException("DTD can't be empty", 970, "src");
  const zr::NodePool::Scope scope(reader.Pool());
  try {
    Builder(splitter, reader).Run(stopAfterOne);
  } catch (const ZrException& error) {
    throw Located(error, 1109, reader);
  } catch (...) {
    throw ZrException("catched an error while processing input", 1113, "src");
  }
  return splitter.top.get();
}

std::unique_ptr<ZrXMLComplexElement> zr::ParseStream(
    std::istream& stream, std::string_view dtdName, std::string& errorText,
    std::span<const ZrDTDDefinition> furtherKinds) {
  try {
    ZrDTDElementReaderStream reader(stream, furtherKinds);
    reader.Pool().KeepWhole();
    ZrXMLGenericElement* const top = Parse(reader.Splitter(), reader, dtdName, false);
    for (ZrXMLComplexElement* node : top->Children()) {
      if (!node->OwnLine()) continue;
      top->RemoveChild(node);
      // What stands beside it goes with the reader, before the pool.
      if (reader.Pool().TakeWhole()) node->MarkTopOfStore();
      return std::unique_ptr<ZrXMLComplexElement>(node);
    }
  } catch (const ZrException& error) {
    errorText = error.what();
  } catch (...) {
    // Anything else, memory running out for one, is a document that could not be read.
  }
  return nullptr;
}

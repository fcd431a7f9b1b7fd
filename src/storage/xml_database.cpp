#include "storage/xml_database.h"

#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "base/line_writer.h"
#include "markup/parse.h"
#include "markup/xml_nodes.h"
#include "platform/file.h"
#include "platform/filesystem.h"

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{256} << 20;
constexpr char kStringVariables[] = "project.stringvariables.stringvariable";
constexpr char kNoBase[] = "the base element must have a length";

// Every piece between dots, empty ones included; only an empty last piece is dropped.
std::vector<std::string_view> SplitPath(std::string_view path) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (start < path.size()) {
    const std::size_t dot = path.find('.', start);
    pieces.push_back(path.substr(start, dot - start));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return pieces;
}

ZrXMLGenericElement* FirstAtDepthOne(ZrXMLGenericElement* from, std::string_view name) {
  ZrXMLElementList found;
  from->FindElementsByName(name, found, 1);
  return found.empty() ? nullptr : found.front();
}

ZrXMLGenericElement* AppendElement(ZrXMLGenericElement* parent, std::string_view name) {
  return parent->Adopt(std::make_unique<ZrXMLGenericElement>(name, true));
}

// The path up to its last component. A path that ends in a separator loses the component before it.
std::string DirectoryOf(const std::string& path) {
  constexpr char kSeparators[] = "\\/";
  std::string_view rest = path;
  if (!rest.empty() && rest.find_last_of(kSeparators) == rest.size() - 1) rest.remove_suffix(1);
  const std::size_t separator = rest.find_last_of(kSeparators);
  return separator == std::string_view::npos ? std::string()
                                             : std::string(rest.substr(0, separator + 1));
}

}  // namespace

ZrXMLDatabase::ZrXMLDatabase(const std::string& baseName)
    : baseName_(baseName), root_(std::make_unique<ZrXML_Document2>()) {
  root_->Adopt(std::make_unique<ZrXML_Declaration2>("version=\"1.0\" encoding=\"UTF-8\""));
  if (!baseName.empty()) current_ = AppendElement(root_.get(), baseName);
}

ZrXMLDatabase::~ZrXMLDatabase() = default;

ZrXMLDatabase::Place ZrXMLDatabase::Resolve(const std::string& path, bool create) {
  if (baseName_.empty() || current_ == nullptr) throw ZrException(kNoBase, 296, "src");
  const std::vector<std::string_view> pieces = SplitPath(path);
  if (pieces.size() < 2)
    throw ZrException("the element and attribute name can't be empty", 300, "src");
  ZrXMLGenericElement* element = current_;
  for (std::size_t i = 0; i + 1 < pieces.size() && element != nullptr; ++i) {
    ZrXMLGenericElement* const next = FirstAtDepthOne(element, pieces[i]);
    element = next == nullptr && create ? AppendElement(element, pieces[i]) : next;
  }
  return {element, pieces.back()};
}

void ZrXMLDatabase::SetValue(const std::string& path, const std::string& value) {
  try {
    const Place place = Resolve(path, true);
    place.element->AssignAttributeText(std::string(place.attribute) + "=\"" + value + "\"");
  } catch (...) {
    // A path that names no value is the caller's to notice by reading it back.
  }
}

std::string ZrXMLDatabase::GetValue(const std::string& path, const std::string& defaultValue) {
  try {
    const Place place = Resolve(path, false);
    if (place.element != nullptr)
      return place.element->AttributeValue(place.attribute, defaultValue);
  } catch (...) {
    // The same: a path that names no value has the default.
  }
  return defaultValue;
}

void ZrXMLDatabase::Save(const std::string& path) {
  const ZrLock hold(mutex_);
  zr::WriteErrorLine("writing: " + path + " to disk is blocked!!");
}

void ZrXMLDatabase::Load(const std::string& path, const OnMissing& onMissing) {
  const std::string systemPath = zr::SystemDirectory(path);
  if (zr::PathKind(systemPath) == zr::ZrPathKind::kMissing) onMissing(path);
  const ZrLock hold(mutex_);
  directory_ = DirectoryOf(path);
  // What a file that cannot be read, a directory among them, reports as its error.
  std::string error = "error in stream around line 1";
  std::unique_ptr<ZrXMLGenericElement> element;
  try {
    if (std::optional<std::string> text = zr::ReadWholeFile(systemPath, kMaxFileBytes)) {
      error.clear();
      std::istringstream stream(std::move(*text));
      std::unique_ptr<ZrXMLComplexElement> parsed = zr::ParseStream(stream, "xml", error);
      if (parsed != nullptr && parsed->AsGeneric() != nullptr)
        element.reset(parsed.release()->AsGeneric());
    }
  } catch (const std::exception& e) {
    error = e.what();
  }
  if (element == nullptr)
    throw ZrException("no config was found - " + path + " with " + error, 268, "src");
  root_ = std::move(element);
  current_ = root_.get();
  baseName_ = root_->Name();
}

void ZrXMLDatabase::SetValueLocked(const std::string& path, const std::string& value) {
  const ZrLock hold(mutex_);
  SetValue(path, value);
}

std::string ZrXMLDatabase::GetValueLocked(const std::string& path,
                                          const std::string& defaultValue) {
  const ZrLock hold(mutex_);
  return GetValue(path, defaultValue);
}

std::string ZrXMLDatabase::EnsureValue(const std::string& path, const std::string& defaultValue) {
  const ZrLock hold(mutex_);
  std::string value = GetValue(path, defaultValue);
  SetValue(path, value);
  return value;
}

void ZrXMLDatabase::FindElements(const std::string& path, ZrXMLElementList& list) {
  if (path.empty() || current_ == nullptr) throw ZrException(kNoBase, 396, "src");
  const std::vector<std::string_view> pieces = SplitPath(path);
  if (pieces.empty()) throw ZrException("the element name can't be empty", 400, "src");
  ZrXMLGenericElement* element = current_;
  for (std::size_t i = 0; i + 1 < pieces.size() && element != nullptr; ++i)
    element = FirstAtDepthOne(element, pieces[i]);
  if (element != nullptr) element->FindElementsByName(pieces.back(), list, 1);
}

void ZrXMLDatabase::FindAllByName(const std::string& name, ZrXMLElementList& list) {
  if (name.empty() || current_ == nullptr) throw ZrException(kNoBase, 431, "src");
  current_->FindElementsByName(name, list, ZrXMLComplexElement::kUnlimited);
}

ZrXMLElementList ZrXMLDatabase::StringVariables() {
  ZrXMLElementList variables;
  FindElements(kStringVariables, variables);
  return variables;
}

ZrXMLGenericElement* ZrXMLDatabase::FindStringVariable(const std::string& name) {
  for (ZrXMLGenericElement* const variable : StringVariables())
    if (variable->AttributeValue("name", "") == name) return variable;
  return nullptr;
}

std::string ZrXMLDatabase::GetStringVariable(const std::string& name,
                                             const std::string& defaultValue) {
  ZrXMLGenericElement* const variable = FindStringVariable(name);
  return variable != nullptr ? InnerMarkup(*variable) : defaultValue;
}

std::string ZrXMLDatabase::InnerMarkup(ZrXMLGenericElement& variable) {
  ZrXMLElementList children;
  variable.CollectElementChildren(children);
  std::ostringstream text;
  for (const ZrXMLGenericElement* const child : children) child->Write(text);
  return std::move(text).str();
}

bool ZrXMLDatabase::HasStringVariable(const std::string& name) {
  return FindStringVariable(name) != nullptr;
}

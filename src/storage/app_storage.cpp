#include "storage/app_storage.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "base/exception.h"
#include "base/line_writer.h"
#include "html/command_compiler.h"
#include "platform/file.h"
#include "platform/filesystem.h"
#include "storage/marker_expansion.h"

namespace {

constexpr char kBase[] = "quarn";
constexpr std::size_t kMaxPathCharacters = 259;
constexpr unsigned kDirectoryMode = 0750;

void NothingMissing(const std::string&) {}

bool HasSeparator(std::string_view name) {
  return name.find_first_of("/\\") != std::string_view::npos;
}

bool LeadsUp(std::string_view path) {
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find_first_of("/\\", start), path.size());
    if (path.substr(start, end - start) == "..") return true;
    start = end + 1;
  }
  return false;
}

// The pieces between backslashes, put together again one by one. No: one is not there.
bool EachPrefixExists(std::string_view directory, bool create) {
  std::string prefix;
  for (std::size_t start = 0; start < directory.size();) {
    const std::size_t end = std::min(directory.find('\\', start), directory.size());
    if (end > start) {
      if (!prefix.empty()) prefix += '\\';
      prefix += directory.substr(start, end - start);
      if (prefix.size() > kMaxPathCharacters) return false;
      const std::string systemPath = zr::SystemDirectory(prefix);
      if (zr::PathKind(systemPath) == zr::ZrPathKind::kMissing &&
          (!create || zr::MakeDirectories(systemPath, kDirectoryMode) != 0))
        return false;
    }
    start = end + 1;
  }
  return true;
}

// A project that others hold could be neither read again nor kept. Nothing in the system gets here,
// as Load() turns every failure into ZrException; it ends the process without running static
// destructors under threads that still use what those destroy.
[[noreturn]] void EndProcess(const std::exception& reason) {
  zr::WriteOutputLine(std::string("%%%%%%%%%%**************%%%%%%%%%%%%%%%%%%%%%%%% ") +
                      reason.what());
  zr::FlushLines(std::chrono::seconds(1));
  std::_Exit(0);
}

}  // namespace

ZrPersistentAppStorage::ZrPersistentAppStorage()
    : ZrXMLDatabase(kBase), notice_([](std::string_view line) { zr::WriteOutputLine(line); }) {}

ZrPersistentAppStorage::~ZrPersistentAppStorage() = default;

void ZrPersistentAppStorage::SetNoticeSink(NoticeSink sink) { notice_ = std::move(sink); }

std::string ZrPersistentAppStorage::ApplicationFile(const std::string& name) const {
  return "./" + (name.empty() ? applicationName_ : name) + ".xml";
}

void ZrPersistentAppStorage::SaveApplication(const std::string& name) {
  Save(ApplicationFile(name));
}

void ZrPersistentAppStorage::LoadApplication(const std::string& name) {
  applicationName_ = name;
  Load(ApplicationFile(name), NothingMissing);
}

void ZrPersistentAppStorage::SetApplication(const std::string& name) {
  ZrXMLElementList bases;
  Root()->FindElementsByName(kBase, bases, ZrXMLComplexElement::kUnlimited);
  if (bases.size() != 1)
    throw ZrException("could not read the application config base 'quarn'", 518, "src");
  SetCurrent(bases.front());
  ZrXMLElementList applications;
  Current()->FindElementsByName(name, applications, ZrXMLComplexElement::kUnlimited);
  if (applications.empty()) Current()->Adopt(std::make_unique<ZrXMLGenericElement>(name, true));
  applicationName_ = name;
  applicationSelected_ = true;
}

ZrXMLElementList ZrPersistentAppStorage::ListedProjects() {
  if (!applicationSelected_) throw ZrException("no application selected", 742, "src");
  ZrXMLElementList projects;
  FindElements(applicationName_ + ".projects.project", projects);
  return projects;
}

void ZrPersistentAppStorage::GetProjectNames(std::vector<std::string>& list) {
  for (const ZrXMLGenericElement* const project : ListedProjects()) {
    std::string name = project->AttributeValue("name", "");
    if (!name.empty()) list.push_back(std::move(name));
  }
}

void ZrPersistentAppStorage::GetOptions(std::map<std::string, std::string>& map) {
  if (!applicationSelected_) throw ZrException("no application selected", 760, "src");
  map.clear();
  ZrXMLElementList options;
  FindElements(applicationName_ + ".options.option", options);
  for (const ZrXMLGenericElement* const option : options) {
    const std::string name = option->AttributeValue("name", "");
    if (!name.empty()) map[name] = option->AttributeValue("value", "");
  }
}

ZrXMLGenericElement* ZrPersistentAppStorage::FindProject(const std::string& name) {
  for (ZrXMLGenericElement* const project : ListedProjects())
    if (project->AttributeEquals("name", name)) return project;
  return nullptr;
}

bool ZrPersistentAppStorage::OpenProject(const std::string& name, bool create,
                                         const OnMissing& onMissing) {
  if (name.empty() || HasSeparator(name)) return false;
  ZrXMLGenericElement* const project = FindProject(name);
  if (project == nullptr) return false;
  std::string path = project->AttributeValue("projectpath", "");
  if (path.empty()) {
    if (!create) return false;
    project->SetAttribute("projectpath", name);
    path = name;
  }
  std::string directory;
  if (!PrepareProjectDirectory(path, directory, create)) return false;
  const std::string file = directory + "/" + name + ".xml";
  try {
    ZrXMLDatabase(kBase).Load(file, onMissing);
  } catch (const std::exception& e) {
    if (!create) return false;
    throw ZrException("closing on catch... with " + std::string(e.what()), 602, "src");
  } catch (...) {
    throw ZrException("closing on catch...", 600, "src");
  }
  projectFiles_[name] = file;
  return true;
}

bool ZrPersistentAppStorage::PrepareProjectDirectory(std::string path, std::string& directory,
                                                     bool create) {
  notice_("*#*#*#* " + path);
  std::replace(path.begin(), path.end(), '/', '\\');
  const bool drivePath = path.size() > 1 && path[1] == ':';
  const std::string whole = drivePath ? path : ".\\" + applicationName_ + "_projects\\" + path;
  notice_("csd: " + whole);
  // A path from a file must not reach beside the directory of its application's projects.
  if (LeadsUp(path) || !EachPrefixExists(whole, create)) return false;
  directory = whole;
  return true;
}

void ZrPersistentAppStorage::PrintProjectStorage() {
  notice_("projectstorage: " + ProjectStorageDirectory());
}

std::string ZrPersistentAppStorage::ProjectStorageDirectory() {
  return "./" + applicationName_ + "_projects";
}

const std::string& ZrPersistentAppStorage::ProjectFile(const std::string& name) const {
  const auto file = projectFiles_.find(name);
  if (file == projectFiles_.end()) throw ZrException("project " + name + "not found", 779, "src");
  return file->second;
}

ZrXMLDatabase* ZrPersistentAppStorage::AcquireProject(const std::string& name,
                                                      const std::string& user) {
  const std::string& file = ProjectFile(name);
  auto open = openProjects_.find(name);
  if (open == openProjects_.end()) {
    auto database = std::make_unique<ZrXMLDatabase>(kBase);
    database->Load(file, NothingMissing);
    open = openProjects_.emplace(name, std::move(database)).first;
  }
  open->second->Users().insert(user);
  return open->second.get();
}

ZrXMLDatabase* ZrPersistentAppStorage::ReacquireProject(const std::string& name,
                                                        const std::string& user) {
  const std::string& file = ProjectFile(name);
  const auto open = openProjects_.find(name);
  if (open == openProjects_.end()) return AcquireProject(name, user);
  notice_("reading DB again");
  try {
    auto fresh = std::make_unique<ZrXMLDatabase>(kBase);
    fresh->Load(file, NothingMissing);
    fresh->Users() = std::move(open->second->Users());
    fresh->Users().insert(user);
    open->second = std::move(fresh);
  } catch (const ZrException& e) {
    throw ZrException(e.what(), 825, "src");
  } catch (const std::exception& e) {
    EndProcess(e);
  }
  return open->second.get();
}

void ZrPersistentAppStorage::ReleaseProject(const std::string& name, const std::string& user) {
  const auto open = openProjects_.find(name);
  if (open == openProjects_.end()) return;
  open->second->Users().erase(user);
  if (!open->second->Users().empty()) return;
  const std::string notice = "closing " + name;  // the argument may live in what goes
  projectFiles_.erase(name);
  openProjects_.erase(open);
  notice_(notice);
}

void ZrPersistentAppStorage::SetVariables(const ZrNamedValueTable& table) { variables_ = table; }

ZrNamedValueTable& ZrPersistentAppStorage::Variables() { return variables_; }

std::uint32_t ZrPersistentAppStorage::FindVariable(const std::string& name) {
  const auto found = variables_.find(name);
  return found == variables_.end() ? 0 : found->second.number;
}

bool ZrPersistentAppStorage::ExpandMarkers(const std::string& project, std::string& text) {
  // The project's text blocks by name, so that a marker costs no walk through all of them; the
  // first of a name counts.
  std::map<std::string, ZrXMLGenericElement*, std::less<>> blocks;
  const auto open = openProjects_.find(project);
  if (open != openProjects_.end() && text.find("[[") != std::string::npos)
    for (ZrXMLGenericElement* const block : open->second->StringVariables())
      blocks.try_emplace(block->AttributeValue("name", ""), block);
  const bool complete = zr::ExpandMarkers(text, [&](std::string_view name) {
    if (name.starts_with('!')) return zr::EvaluateCommand(name);
    if (const auto block = blocks.find(name); block != blocks.end())
      return ZrXMLDatabase::InnerMarkup(*block->second);
    const auto mapping = mappings_.find(name);
    return mapping == mappings_.end() ? std::string() : mapping->second;
  });
  if (!complete) {
    zr::WriteDiagnostic("markers of a text", "markers of a text call for more than " +
                                                 std::to_string(zr::kMaxMarkerReplacements) +
                                                 " replacements or " +
                                                 std::to_string(zr::kMaxMarkerBytes >> 20) +
                                                 " MiB; the rest of the text stays as it is");
  }
  return complete;
}

void ZrPersistentAppStorage::SetMapping(const std::string& name, const std::string& text) {
  mappings_[name] = text;
}

void ZrPersistentAppStorage::RemoveMapping(const std::string& name) { mappings_.erase(name); }

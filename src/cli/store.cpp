// `velkoro store`: looks into an application's configuration file from the shell.

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/command.h"
#include "storage/app_storage.h"

namespace zr::cli {

namespace {

constexpr char kUser[] = "velkoro store";

struct StoreArguments {
  std::string application;
  std::string path;
  std::optional<std::string> defaultText;
  std::string project;
  std::string name;
  std::string file;
  std::vector<std::string> mappings;
};

// What is asked for goes to standard output, and nothing anywhere else when it is there: the
// storage's own notices are not for the shell.
std::unique_ptr<ZrPersistentAppStorage> Open(const StoreArguments& arguments) {
  auto storage = std::make_unique<ZrPersistentAppStorage>();
  storage->SetNoticeSink([](std::string_view) {});
  storage->LoadApplication(arguments.application);
  ZrXMLElementList listed;
  storage->FindAllByName(arguments.application, listed);
  storage->SetApplication(arguments.application);  // which adds one that is not there
  if (listed.empty()) {
    throw std::runtime_error("'./" + arguments.application + ".xml' holds no application '" +
                             arguments.application + "'");
  }
  return storage;
}

ZrXMLDatabase* OpenProject(ZrPersistentAppStorage& storage, const std::string& name) {
  if (!storage.OpenProject(name, false, [](const std::string&) {})) {
    throw std::runtime_error("project '" + name +
                             "' cannot be opened: it is not listed, or its file is not there or "
                             "cannot be read; see `velkoro store --application APP projects`");
  }
  return storage.AcquireProject(name, kUser);
}

std::string TextOf(const std::string& file) {
  try {
    return ReadInput(file);
  } catch (const std::runtime_error& failure) {
    throw std::runtime_error(file + ": " + failure.what());
  }
}

int PrintOptions(const StoreArguments& arguments) {
  std::map<std::string, std::string> options;
  Open(arguments)->GetOptions(options);
  std::string out;
  for (const auto& [name, value] : options) out.append(name).append("=").append(value).append("\n");
  return Print(out);
}

int PrintProjects(const StoreArguments& arguments) {
  const std::unique_ptr<ZrPersistentAppStorage> storage = Open(arguments);
  ZrXMLElementList projects;
  storage->FindElements(arguments.application + ".projects.project", projects);
  std::string out;
  for (const ZrXMLGenericElement* const project : projects) {
    const std::string name = project->AttributeValue("name", "");
    if (name.empty()) continue;
    std::string path = project->AttributeValue("projectpath", "");
    if (path.size() < 2 || path[1] != ':')
      path = storage->ProjectStorageDirectory() + "/" + (path.empty() ? name : path);
    out.append(name).append("\t").append(path).append("\n");
  }
  return Print(out);
}

int PrintValue(const StoreArguments& arguments) {
  const std::unique_ptr<ZrPersistentAppStorage> storage = Open(arguments);
  if (arguments.defaultText)
    return Print(storage->GetValue(arguments.path, *arguments.defaultText) + "\n");
  const std::string value = storage->GetValue(arguments.path, "a");
  if (value == "a" && storage->GetValue(arguments.path, "b") == "b")
    throw std::runtime_error("there is no value '" + arguments.path + "'; --default prints one");
  return Print(value + "\n");
}

int PrintVariable(const StoreArguments& arguments) {
  const std::unique_ptr<ZrPersistentAppStorage> storage = Open(arguments);
  ZrXMLDatabase* const project = OpenProject(*storage, arguments.project);
  if (!project->HasStringVariable(arguments.name)) {
    throw std::runtime_error("project '" + arguments.project + "' has no string variable '" +
                             arguments.name + "'");
  }
  return Print(project->GetStringVariable(arguments.name, "") + "\n");
}

int PrintExpanded(const StoreArguments& arguments) {
  const std::unique_ptr<ZrPersistentAppStorage> storage = Open(arguments);
  if (!arguments.project.empty()) OpenProject(*storage, arguments.project);
  for (const std::string& mapping : arguments.mappings) {
    const std::size_t equals = mapping.find('=');
    if (equals == 0 || equals == std::string::npos)
      throw UsageError("--set " + mapping + ": give NAME=TEXT");
    storage->SetMapping(mapping.substr(0, equals), mapping.substr(equals + 1));
  }
  std::string text = TextOf(arguments.file);
  // The storage says on standard error which bound the text goes beyond.
  return storage->ExpandMarkers(arguments.project, text) ? Print(text) : kFailure;
}

}  // namespace

void AddStore(CLI::App& program, Run& chosen) {
  CLI::App* const store = program.add_subcommand(
      "store", "Look into an application's configuration file, APP.xml in the current directory");
  auto arguments = std::make_shared<StoreArguments>();
  // Asked for in two places, so that it may stand before the subcommand or behind it.
  const auto addApplication = [&arguments](CLI::App& command) {
    command
        .add_option("--application", arguments->application, "Name of the application; required")
        ->type_name("APP");
  };
  addApplication(*store);
  store->require_subcommand(1);
  store->footer("Example:\n  velkoro store --application demo options");
  const auto add = [&](const char* name, const char* text, const char* example,
                       int (*run)(const StoreArguments&)) {
    CLI::App* const command = store->add_subcommand(name, text);
    command->footer(std::string("Example:\n  velkoro store --application demo ") + example);
    addApplication(*command);
    command->callback([&chosen, arguments, run] {
      chosen = [arguments, run] {
        if (arguments->application.empty()) throw UsageError("--application is required");
        return run(*arguments);
      };
    });
    return command;
  };
  add("options", "Print each option as name=value", "options", PrintOptions);
  add("projects", "Print each project's name and, behind a tab, its directory", "projects",
      PrintProjects);

  CLI::App* const get = add("get", "Print the value at a dotted path",
                            "get demo.server.port --default 8443", PrintValue);
  get->add_option("PATH", arguments->path, "Element names and an attribute name, between dots")
      ->required();
  get->add_option("--default", arguments->defaultText, "What to print when there is none")
      ->type_name("TEXT");

  CLI::App* const variable = add("variable", "Print a string variable of a project",
                                 "variable garden greeting", PrintVariable);
  variable->add_option("PROJECT", arguments->project, "Name of the project")->required();
  variable->add_option("NAME", arguments->name, "Name of the variable")->required();

  CLI::App* const expand =
      add("expand", "Print a text with its [[markers]] replaced",
          "expand --project garden --set visitor=Ada greeting.txt", PrintExpanded);
  expand->add_option("--project", arguments->project, "Replace by this project's string variables")
      ->type_name("PROJECT");
  expand->add_option("--set", arguments->mappings, "Replace [[NAME]] by TEXT; may be repeated")
      ->type_name("NAME=TEXT")
      ->expected(1)
      ->take_all();
  expand->add_option("FILE", arguments->file, "The text; - reads standard input")->required();
}

}  // namespace zr::cli

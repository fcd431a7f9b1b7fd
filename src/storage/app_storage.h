#pragma once
// The configuration store: one tree whose base element "quarn" holds an element for each
// application with its options and its list of projects. On top of it stand the open projects (one
// database each, shared by name between those who use it), the directories of projects on disk, the
// named-value table that the server answers from, and the expansion of markers in project texts.
// docs/configuration.md shows the layout of the files.
//
// Threads: the operations of this class take no lock of their own; they belong to the set-up and to
// one thread at a time. Whoever shares the named-value table guards it.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "storage/named_value.h"
#include "storage/xml_database.h"

class ZrPersistentAppStorage : public ZrXMLDatabase {
 public:
  using NoticeSink = std::function<void(std::string_view line)>;

  /// A tree that holds the base element alone; no application is selected.
  ZrPersistentAppStorage();
  ~ZrPersistentAppStorage() override;

  // The virtual operations that follow those of ZrXMLDatabase, in slot order.

  /// Save() with the file of that application, the selected one for an empty name.
  virtual void SaveApplication(const std::string& name);
  /// Reads the application's file from the current directory. Throws as Load() does, also when
  /// there is no such file.
  virtual void LoadApplication(const std::string& name);
  /// Selects an application, adding an empty element for it when there is none. Throws ZrException
  /// when the tree does not hold exactly one base element.
  virtual void SetApplication(const std::string& name);
  /// Appends the names of the application's projects, in the file's order. Throws ZrException when
  /// no application is selected; likewise GetOptions().
  virtual void GetProjectNames(std::vector<std::string>& list);
  /// Replaces the map by the application's options; the last of two of one name counts.
  virtual void GetOptions(std::map<std::string, std::string>& map);
  /// Makes a listed project known for AcquireProject(): its directory is there and its file can be
  /// read. `create` makes missing directories. Answers no when the name is not listed or holds a
  /// separator, when its path has a ".." piece, or when something is missing; with `create`, a file
  /// that cannot be read throws ZrException.
  virtual bool OpenProject(const std::string& name, bool create, const OnMissing& onMissing);
  /// Finds, and with `create` makes (mode 0750), the directory of a project path; it is stored in
  /// `directory`, in the stored form. No: it is not there, cannot be made, is longer than 259
  /// characters, or the path has a ".." piece.
  virtual bool PrepareProjectDirectory(std::string path, std::string& directory, bool create);
  virtual void PrintProjectStorage();
  virtual std::string ProjectStorageDirectory();
  /// The database of an opened project, read when nobody holds it yet; `user` then holds it. It is
  /// owned by the storage and good until its last user releases it or it is read again. Throws
  /// ZrException for a project that was not opened or cannot be read.
  virtual ZrXMLDatabase* AcquireProject(const std::string& name, const std::string& user);
  /// The same, but a project that is open is read again from its file: its users stay, and pointers
  /// to the former database end. When it cannot be read the open one stays.
  virtual ZrXMLDatabase* ReacquireProject(const std::string& name, const std::string& user);
  /// Takes the user off the project; with the last one the project is closed.
  virtual void ReleaseProject(const std::string& name, const std::string& user);
  virtual void SetVariables(const ZrNamedValueTable& table);
  virtual ZrNamedValueTable& Variables();
  /// The number held with that name, 0 when there is none.
  virtual std::uint32_t FindVariable(const std::string& name);
  /// Replaces every [[name]] of the text: a name with "!" in front by the result of that command,
  /// the name of a text block of the open project by that block, a mapped name by its text, any
  /// other by nothing. What was inserted is expanded in turn, within the bounds of
  /// zr::ExpandMarkers(); when one is reached, one line on standard error says so, and the answer
  /// is no.
  virtual bool ExpandMarkers(const std::string& project, std::string& text);
  virtual void SetMapping(const std::string& name, const std::string& text);
  virtual void RemoveMapping(const std::string& name);

  /// Where the lines of notice go: standard output unless a program says otherwise.
  void SetNoticeSink(NoticeSink sink);

 private:
  std::string ApplicationFile(const std::string& name) const;
  ZrXMLElementList ListedProjects();
  ZrXMLGenericElement* FindProject(const std::string& name);
  const std::string& ProjectFile(const std::string& name) const;

  std::string applicationName_;
  bool applicationSelected_ = false;
  std::map<std::string, std::string> projectFiles_;
  std::map<std::string, std::unique_ptr<ZrXMLDatabase>> openProjects_;
  ZrNamedValueTable variables_;
  std::map<std::string, std::string, std::less<>> mappings_;
  NoticeSink notice_;
};

#pragma once
// A small key-value store held as an element tree. A value is an attribute; its key is a dotted
// path from the base element, the attribute's name last: "server.port" is the attribute "port" of
// the first element "server" below the base element. The store of applications and projects
// (storage/app_storage.h) derives from it, and every open project is one.
//
// Everything lives in memory. Save() only says that it does not write; nothing reaches the disk.
//
// Threads: the operations named ...Locked, EnsureValue(), Load() and Save() take the database's
// mutex and may be called from any thread. All others take no lock: their callers see to it that
// nobody else uses the database at the same time.

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "markup/generic_element.h"
#include "platform/sync.h"

class ZrXMLDatabase {
 public:
  /// Called with the path of a file that is not there, before it is read.
  using OnMissing = std::function<void(const std::string& path)>;

  /// A tree that holds a declaration and, unless the name is empty, one base element of that name.
  explicit ZrXMLDatabase(const std::string& baseName);
  ZrXMLDatabase(const ZrXMLDatabase&) = delete;
  ZrXMLDatabase& operator=(const ZrXMLDatabase&) = delete;

  // The virtual operations, in slot order.

  /// Sets the attribute at the end of the path, making the elements on the way. A path of fewer
  /// than two pieces changes nothing. Throws nothing.
  virtual void SetValue(const std::string& path, const std::string& value);
  /// The attribute at the end of the path; the default when the path or the attribute is not there.
  /// Throws nothing but std::bad_alloc.
  virtual std::string GetValue(const std::string& path, const std::string& defaultValue);
  virtual ~ZrXMLDatabase();
  /// Writes one line to standard error that says that nothing was written to the path.
  virtual void Save(const std::string& path);
  /// Reads the tree from a file, which takes the place of this one: the file's first element
  /// becomes the base element. `path` is in the stored form. A missing file is told to onMissing
  /// first, which may make it; an empty onMissing then throws std::bad_function_call. Every other
  /// failure throws ZrException "no config was found - PATH with REASON" and leaves the tree as it
  /// was.
  virtual void Load(const std::string& path, const OnMissing& onMissing);
  virtual void SetValueLocked(const std::string& path, const std::string& value);
  virtual std::string GetValueLocked(const std::string& path, const std::string& defaultValue);
  /// The value, entered with the default when it was absent.
  virtual std::string EnsureValue(const std::string& path, const std::string& defaultValue);
  /// Appends the elements that the path names to the list, nothing when a piece on the way is not
  /// found. The pointers are good until their element or the tree goes. Throws ZrException for an
  /// empty path and for a database without base element.
  virtual void FindElements(const std::string& path, ZrXMLElementList& list);
  /// Appends every element of that name in the tree of the base element, itself included. Throws
  /// ZrException for an empty name and for a database without base element.
  virtual void FindAllByName(const std::string& name, ZrXMLElementList& list);
  /// The inner markup of the project's text block of that name, as it would be written.
  virtual std::string GetStringVariable(const std::string& name, const std::string& defaultValue);
  virtual bool HasStringVariable(const std::string& name);
  /// The names of those who hold this database open.
  virtual std::set<std::string>& Users() { return users_; }

  /// The project's text blocks in the file's order; good as long as the tree. Throws as
  /// FindElements() does.
  ZrXMLElementList StringVariables();
  /// A text block's inner markup, as it would be written.
  static std::string InnerMarkup(ZrXMLGenericElement& variable);

  /// After Load(): the loaded path without its last component, the separator behind it kept.
  const std::string& Directory() const { return directory_; }
  const std::string& BaseName() const { return baseName_; }
  /// The element from which paths are resolved; null for a database without one. Owned by the tree.
  ZrXMLGenericElement* Current() const { return current_; }

 protected:
  ZrXMLGenericElement* Root() const { return root_.get(); }
  void SetCurrent(ZrXMLGenericElement* current) { current_ = current; }

 private:
  struct Place {
    ZrXMLGenericElement* element;  // null when it is not there
    std::string_view attribute;
  };
  Place Resolve(const std::string& path, bool create);
  ZrXMLGenericElement* FindStringVariable(const std::string& name);

  std::string directory_;
  std::string baseName_;
  std::unique_ptr<ZrXMLGenericElement> root_;
  ZrXMLGenericElement* current_ = nullptr;  // within root_
  std::set<std::string> users_;
  ZrMutex mutex_;  // not recursive: no locked operation calls another
};

#pragma once
// The reader: a source of bytes, one at a time or in blocks, with everything one parse needs.
//
// Unread bytes lie in one contiguous window that the source refills. A reader state works through a
// ReadTransaction, a position in that window; undoing an attempt sets the position back and costs
// nothing. Bytes that were looked at stay in the window until a state consumes them, so the window
// plays the part of a put-back buffer as well.
//
// Line feeds count when a transaction takes them, whether it then consumes them or not: input that
// is given back and read again counts again. Line() is therefore what a reader that works byte by
// byte would say, and an attempt that ran to the end of the input in vain has counted it all.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "markup/content_splitter.h"
#include "markup/dtd.h"
#include "markup/name.h"
#include "markup/node_memory.h"
#include "markup/read_window.h"

/// Abstract reader. Not locked; lives for one parse on one thread.
class ZrDTDElementReader {
 public:
  /// One attribute of the tag recognised last.
  struct AttributeRecord {
    ZrNameView name;
    std::string_view value;
    bool bare;                // no equals sign, no value
    std::size_t valueAt = 0;  // from the tag's first byte
    std::size_t valueLength = 0;
  };

  /// Knows the DTD "xml" and those of the definitions, which outlive the reader.
  explicit ZrDTDElementReader(std::span<const ZrDTDDefinition> furtherKinds = {});
  ZrDTDElementReader(const ZrDTDElementReader&) = delete;
  ZrDTDElementReader& operator=(const ZrDTDElementReader&) = delete;

  // The virtual operations, in slot order. A source implements the first four.

  /// Whether the source has reached its end; it may notice only when asked for a byte there.
  virtual bool AtEnd() = 0;
  /// Whether the source has neither failed nor reached its end.
  virtual bool Good() = 0;
  /// The source's next byte (0 to 255), which stays there; -1 at the end.
  virtual int PeekChar() = 0;
  /// The source's next byte, consumed; -1 at the end.
  virtual int GetChar() = 0;
  /// Destroys the tree that is still in the splitter.
  virtual ~ZrDTDElementReader();

  /// Takes up to room (at least 1) bytes that are at hand from the source, waiting only when there
  /// is none; 0 at the end. This one takes a single byte through PeekChar() and GetChar().
  virtual std::size_t ReadBlock(char* to, std::size_t room);

  // The other operations.

  /// 1 and the line feeds taken so far.
  std::uint64_t Line() const { return line_; }
  /// Whether bytes wait that the source has delivered already.
  bool HasUnread() const { return window_.Unread() != 0; }
  /// How many of them.
  std::size_t UnreadSize() const { return window_.Unread(); }
  /// The next byte, which stays unread; -1 at the end.
  int PeekUnread() { return HasUnread() || More() ? window_.At(0) : -1; }

  /// The byte behind it when the source has delivered it already, else -1.
  int SecondUnread() const { return window_.Unread() > 1 ? window_.At(1) : -1; }

  /// The attributes of the tag recognised last, in order; good until the next tag is tried.
  std::span<const AttributeRecord> Attributes() const { return attributes_; }
  /// For states that recognise tags: empties the list; appends a bare attribute to it, which the
  /// state completes; and finds all values in the bytes of the whole tag.
  void ClearAttributes() { attributes_.clear(); }
  AttributeRecord& AddAttribute(std::string_view name) {
    return attributes_.emplace_back(AttributeRecord{names_.Intern(name), {}, true});
  }
  void FinishAttributes(std::string_view tag) {
    for (AttributeRecord& record : attributes_)
      record.value = tag.substr(record.valueAt, record.valueLength);
  }

  /// Adds a document kind. Throws ZrException "name can't be twice" for a name that is there.
  void AddDTD(std::unique_ptr<ZrDTD> dtd);
  /// The DTD of that name, null when there is none. A defined one is built when first asked for.
  ZrDTD* FindDTD(std::string_view name);
  /// The names that the nodes of this parse share.
  ZrNameTable& Names() { return names_; }
  ZrXMLContentSplitter& Splitter() { return splitter_; }
  /// Memory for the nodes of this parse.
  zr::NodePool& Pool() { return pool_; }

 private:
  friend class ReadTransaction;
  friend class zr::PlainReader;

  // Asks the source for more bytes behind the unread ones. No: it has no more.
  bool More() {
    if (window_.IsFull() && !attributes_.empty()) KeepValues();
    char* const room = window_.MakeRoom();
    const std::size_t count = ReadBlock(room, window_.Room());
    window_.Filled(count);
    return count != 0;
  }

  // The values of the attributes lie in the window, which is about to move.
  void KeepValues();

  std::uint64_t line_ = 1;
  ZrReadWindow window_;
  std::vector<AttributeRecord> attributes_;
  std::unique_ptr<char[]> keptValues_;  // of the attributes, once the window moved
  zr::NodePool pool_;
  ZrNameTable names_{pool_};
  ZrXMLContentSplitter splitter_;
  const std::span<const ZrDTDDefinition> definitions_;
  std::map<std::string, std::unique_ptr<ZrDTD>, std::less<>> dtds_;
};

#pragma once
// A reader state recognises one kind of token: a tag, a text run, a comment, a CSS rule and so on.
// A ZrDTD is a named set of states; the parser asks the states of the active one in turn, and the
// first that succeeds has consumed the token. The states of the five document kinds are in
// zrdtdelementread_*.h; a program may register further ones.

#include <memory>
#include <string>
#include <string_view>

#include "markup/byte_set.h"

class ZrDTDElementReader;

/// Base of the reader states.
class ZrDTDElementRead {
 public:
  /// What a state says about itself beside its name.
  struct Traits {
    /// The bytes that its tokens can begin with, and those that can follow; it is not asked at any
    /// others.
    zr::ByteSet first = zr::kAnyByte;
    zr::ByteSet second = zr::kAnyByte;
    /// It empties itself with Begin() at the start of Read(). Of any other state the parser takes a
    /// fresh Clone() after each token.
    bool reusable = false;
    /// Its tokens neither close an element nor carry attributes: the parser does not ask.
    bool plain = false;
  };

  ZrDTDElementRead(std::string name, const Traits& traits)
      : name_(std::move(name)), traits_(traits) {}
  ZrDTDElementRead(const ZrDTDElementRead&) = delete;
  ZrDTDElementRead& operator=(const ZrDTDElementRead&) = delete;

  // The virtual operations, in slot order.

  virtual ~ZrDTDElementRead() = default;
  /// Tries to recognise one token, through a ReadTransaction. Returns this with Text() filled and
  /// the token consumed, or null with the input unchanged.
  virtual ZrDTDElementRead* Read(ZrDTDElementReader& reader) = 0;
  /// A new, fresh state of the same class.
  virtual std::unique_ptr<ZrDTDElementRead> Clone() const = 0;
  /// Whether the token read last closes an element.
  virtual bool IsClosing() const { return false; }
  /// Whether the reader's attribute list belongs to the token read last.
  virtual bool CarriesAttributes() const { return false; }
  /// Whether the closing token read last may close an element of that name.
  virtual bool ClosesElement(std::string_view) const { return true; }
  /// No state of this library is a query.
  virtual bool IsQuery() const { return false; }

  // The other operations.

  const std::string& Name() const { return name_; }
  /// The text of the token read last; good until the reader is asked again.
  std::string_view Text() const { return text_; }
  /// Whether the tag read last ended with "/>".
  bool SelfClosed() const { return selfClosed_; }
  const zr::ByteSet& FirstBytes() const { return traits_.first; }
  const zr::ByteSet& SecondBytes() const { return traits_.second; }
  bool Reusable() const { return traits_.reusable; }
  bool IsPlain() const { return traits_.plain; }

 protected:
  /// Forgets the token read last.
  void Begin() {
    text_ = {};
    selfClosed_ = false;
  }

  bool selfClosed_ = false;
  std::string_view text_;  // in the reader's window, or in a member of the state

 private:
  const std::string name_;
  const Traits traits_;
};

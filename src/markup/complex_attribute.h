#pragma once
// Attributes are small polymorphic objects that their element owns. The parser and SetAttribute
// make untyped text attributes; HTML elements add typed members and enter a proxy for each into
// their attribute map. Nothing here locks: an attribute belongs to the thread of its tree.

#include <ostream>
#include <string>
#include <string_view>

#include "markup/node_memory.h"
#include "markup/short_text.h"

/// Base of all attributes: a value that can be written and set from text.
class ZrXMLComplexAttribute2 : public ZrInNodeMemory {
 public:
  ZrXMLComplexAttribute2() = default;
  ZrXMLComplexAttribute2(const ZrXMLComplexAttribute2&) = delete;
  ZrXMLComplexAttribute2& operator=(const ZrXMLComplexAttribute2&) = delete;

  virtual ~ZrXMLComplexAttribute2() = default;
  /// Whether the attribute has a value. An attribute that has none is not written at all.
  virtual bool IsSet() const { return true; }
  /// Writes the value without quotes and without escaping.
  virtual void WriteValue(std::ostream& stream) const;
  /// Sets the value from a C string; null unsets the typed attributes and empties the untyped one.
  virtual void SetFromText(const char* text);
  /// Sets the value. ZrXMLDoubleZrAttribute throws when the text is no number.
  virtual void SetFromString(const std::string& text);
};

/// Untyped text attribute.
class ZrXMLGenericAttribute : public ZrXMLComplexAttribute2 {
 public:
  ZrXMLGenericAttribute() = default;
  explicit ZrXMLGenericAttribute(std::string_view text) : text_(text) {}
  explicit ZrXMLGenericAttribute(const ZrShortText::Source& text) noexcept : text_(text) {}

  void WriteValue(std::ostream& stream) const override;
  void SetFromText(const char* text) override { text_.Assign(text != nullptr ? text : ""); }
  void SetFromString(const std::string& text) override { text_.Assign(text); }

  /// The value, as WriteValue() writes it; good until it is set again.
  std::string_view text() const { return text_.view(); }

 private:
  ZrShortText text_;
};

/// Text attribute that is written only once it was set.
class ZrXMLStringZrAttribute : public ZrXMLComplexAttribute2 {
 public:
  bool IsSet() const override { return isSet_; }
  void WriteValue(std::ostream& stream) const override;
  void SetFromText(const char* text) override;
  void SetFromString(const std::string& text) override;
  /// The text itself; changing it does not mark the attribute as set.
  virtual std::string& Text() { return text_; }

 private:
  std::string text_;
  bool isSet_ = false;
};

/// Floating-point attribute, written with six significant digits as "%g" does, in every locale.
class ZrXMLDoubleZrAttribute : public ZrXMLComplexAttribute2 {
 public:
  bool IsSet() const override { return isSet_; }
  void WriteValue(std::ostream& stream) const override;
  /// An empty text, one that is no number and one out of range give 0.
  void SetFromText(const char* text) override;
  /// Throws std::invalid_argument "invalid stod argument" or std::out_of_range "stod argument out
  /// of range"; the attribute then counts as set and keeps its old number.
  void SetFromString(const std::string& text) override;

  double value() const { return value_; }

 private:
  double value_ = 0;
  bool isSet_ = false;
};

/// Boolean attribute, written as 1 or 0. A number other than 0 and the word "true" in any case read
/// as true, every other text as false.
class ZrXMLBoolZrAttribute : public ZrXMLComplexAttribute2 {
 public:
  bool IsSet() const override { return isSet_; }
  void WriteValue(std::ostream& stream) const override;
  void SetFromText(const char* text) override;
  void SetFromString(const std::string& text) override;

  bool value() const { return value_; }

 private:
  bool value_ = false;
  bool isSet_ = false;
};

/// Stands in an attribute map for an attribute that lives elsewhere, usually as a member of the
/// element. The target outlives the proxy and is not owned by it.
class ZrXMLComplexAttributeProxy2 : public ZrXMLComplexAttribute2 {
 public:
  explicit ZrXMLComplexAttributeProxy2(ZrXMLComplexAttribute2* target) : target_(target) {}

  bool IsSet() const override { return target_->IsSet(); }
  void WriteValue(std::ostream& stream) const override { target_->WriteValue(stream); }
  void SetFromText(const char* text) override { target_->SetFromText(text); }
  void SetFromString(const std::string& text) override { target_->SetFromString(text); }

 private:
  ZrXMLComplexAttribute2* const target_;
};

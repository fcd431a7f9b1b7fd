#pragma once
// The properties of reading and writing markup, for every document kind: input that comes one byte
// at a time gives the same tree and the same message as input that comes whole, and what was read
// and written reads again to the same text.

#include <cstddef>
#include <cstdint>
#include <istream>
#include <span>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>

#include "base/exception.h"
#include "fuzz/check.h"
#include "markup/element_reader_stream.h"
#include "markup/parse.h"

namespace zr::fuzz {

/// A source that has one byte at hand at a time.
class ByteBuffer : public std::streambuf {
 public:
  explicit ByteBuffer(std::string_view text) : rest_(text) {}

 protected:
  int_type underflow() override {
    if (gptr() != nullptr && gptr() < egptr()) return traits_type::to_int_type(*gptr());
    if (rest_.empty()) return traits_type::eof();
    byte_ = rest_.front();
    rest_.remove_prefix(1);
    setg(&byte_, &byte_, &byte_ + 1);
    return traits_type::to_int_type(byte_);
  }

 private:
  std::string_view rest_;
  char byte_ = 0;
};

struct ReadResult {
  std::string error;    // the message, empty after success
  std::string written;  // all top-level nodes
  bool stable = true;   // nothing was read that is written as something else
};

/// `isStable` answers for one node whether its text reads again as the same node.
template <class IsStable>
bool AllStable(const ZrXMLComplexElement& node, IsStable&& isStable) {
  if (!isStable(node)) return false;
  if (const auto* const element = dynamic_cast<const ZrXMLGenericElement*>(&node)) {
    bool quoted = false;
    element->ForEachAttribute([&](const std::string&, const ZrXMLComplexAttribute2* attribute) {
      std::ostringstream value;
      if (attribute != nullptr) attribute->WriteValue(value);
      // Read between single quotes, written as it is between double ones.
      if (value.str().find('"') != std::string::npos) quoted = true;
    });
    if (quoted) return false;
  }
  for (const ZrXMLComplexElement* child : node.Children())
    if (!AllStable(*child, isStable)) return false;
  return true;
}

template <class IsStable>
ReadResult ReadMarkup(std::istream& stream, const char* kind,
                      std::span<const ZrDTDDefinition> kinds, IsStable&& isStable) {
  ReadResult result;
  ZrDTDElementReaderStream reader(stream, kinds);
  try {
    zr::Parse(reader.Splitter(), reader, kind, false);
  } catch (const ZrException& e) {
    result.error = e.what();
  }
  std::ostringstream written;
  for (const ZrXMLComplexElement* child : reader.Splitter().top->Children()) child->Write(written);
  result.written = std::move(written).str();
  result.stable = AllStable(*reader.Splitter().top, isStable);
  return result;
}

template <class IsStable>
void CheckMarkup(const std::uint8_t* data, std::size_t size, const char* kind,
                 std::span<const ZrDTDDefinition> kinds, IsStable&& isStable) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::istringstream whole(text);
  const ReadResult result = ReadMarkup(whole, kind, kinds, isStable);

  ByteBuffer bytes(text);
  std::istream pieces(&bytes);
  const ReadResult cut = ReadMarkup(pieces, kind, kinds, isStable);
  ZR_FUZZ_CHECK(cut.error == result.error);
  ZR_FUZZ_CHECK(cut.written == result.written);

  if (!result.error.empty() || !result.stable) return;
  std::istringstream again(result.written);
  const ReadResult second = ReadMarkup(again, kind, kinds, isStable);
  ZR_FUZZ_CHECK(second.error.empty());
  ZR_FUZZ_CHECK(second.written == result.written);
}

}  // namespace zr::fuzz

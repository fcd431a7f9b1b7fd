// The incremental head reader. Lines end at CR LF only; a lone CR or LF belongs to its line. The
// bytes of an unfinished line stay in `body` until its end has arrived, and the reader remembers
// how far it searched for it, so every byte is searched once and copied once however the input is
// cut.

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <utility>

#include "base/byte_words.h"
#include "base/number.h"
#include "base/trim.h"
#include "http/field_list.h"
#include "http/form_body.h"
#include "http/message_head.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";

// A first guess at a head's fields; the container grows past it.
constexpr std::size_t kUsualLines = 16;

struct TypeName {
  std::string_view name;
  ZrMessageType type;
};
constexpr std::array<TypeName, 4> kTypeNames = {{{"NONE", ZrMessageType::kNone},
                                                 {"GET", ZrMessageType::kGet},
                                                 {"POST", ZrMessageType::kPost},
                                                 {"ANSWER", ZrMessageType::kAnswer}}};

constexpr bool IsBlank(char c) { return c == ' ' || c == '\t'; }
constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }
constexpr char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c & ~0x20) : c; }

constexpr std::size_t kWordBytes = sizeof(std::uint64_t);

bool HasLower(std::string_view text) {
  return std::any_of(
      text.begin(), text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}
bool HasNoBlank(std::uint64_t word) { return !zr::AnyBelow(word, ' ' + 1); }

void MakeUpper(std::string& text) { std::transform(text.begin(), text.end(), text.begin(), Upper); }

// Whether the text begins with the name of a field that says where a message ends.
bool IsFraming(std::string_view text) {
  while (!text.empty() && static_cast<unsigned char>(text.front()) <= ' ') text.remove_prefix(1);
  for (const std::string_view name : {"transfer-encoding", "content-length"})
    if (zr::EqualsIgnoringCase(text.substr(0, name.size()), name)) return true;
  return false;
}

bool HasControls(std::string_view text) {
  return !zr::AllWords(
      text, [](std::uint64_t word) { return !zr::AnyBelow(word, ' '); });
}

// Whether those who end a line at a CR or LF alone find something in it that says where the message
// ends. Each is looked for by itself, as that is one fast search in a line that has none.
bool HidesAnother(std::string_view line) {
  for (const char end : {'\n', '\r'}) {
    for (std::size_t at = line.find(end); at != std::string_view::npos;
         at = line.find(end, at + 1)) {
      const std::string_view next = line.substr(at + 1);
      const bool endsHead = end == '\n' && (next.empty() || next.front() == '\n');
      if (endsHead || IsFraming(next)) return true;
    }
  }
  return false;
}

// Takes a word from the front of the line: leading spaces are skipped, tabs are dropped, a space
// ends the word and goes with it. No: the word ran to the end of the line instead.
bool TakeWord(std::string_view& line, std::string& word) {
  while (!line.empty()) {
    const std::size_t end = line.find(' ');
    const std::string_view piece = line.substr(0, end);
    std::copy_if(piece.begin(), piece.end(), std::back_inserter(word),
                 [](char c) { return c != '\t'; });
    if (end == std::string_view::npos) break;
    line.remove_prefix(end + 1);
    if (!word.empty()) return true;
  }
  line = {};
  return false;
}

/// The words of a first line. They lie in the line as nearly every client writes it, and otherwise,
/// cleaned, in `made`.
struct FirstWords {
  explicit FirstWords(std::string_view line) {
    const std::size_t first = line.find(' ');
    const std::size_t second = line.find(' ', first + 1);
    const bool plain = first != 0 && second != std::string_view::npos && second != first + 1;
    if (plain) {
      words = {line.substr(0, first), line.substr(first + 1, second - first - 1),
               line.substr(second + 1)};
      if (!HasControls(line) && !HasLower(words[0]) && !HasLower(words[2])) return;
    }
    Clean(line);
  }
  void Clean(std::string_view line) {
    firstEnded = TakeWord(line, made[0]);
    const bool secondEnded = firstEnded && TakeWord(line, made[1]);
    if (secondEnded) made[2] = line;
    MakeUpper(made[0]);
    MakeUpper(made[2]);
    words = {made[0], made[1], made[2]};
  }

  bool firstEnded = true;  // by a space
  std::array<std::string_view, 3> words;
  std::array<std::string, 3> made;
};

// A value without its blanks; there is room for a whole word more.
char* CopyWithoutBlanks(std::string_view text, char* out) {
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, kWordBytes);
    if (const std::uint64_t word = zr::FirstWord(piece); zr::AllWords(piece, HasNoBlank)) {
      std::memcpy(out, &word, kWordBytes);
      out += piece.size();
    } else {
      for (const char c : piece) {
        *out = c;
        out += IsBlank(c) ? 0 : 1;
      }
    }
    text.remove_prefix(piece.size());
  }
  return out;
}

}  // namespace

ZrReadResult ZrXHeader::ReadHead(const std::function<bool(ZrXHeader&)>& callback) {
  if (reading.rejected) return ZrReadResult::kRejected;
  while (reading.inHead) {
    const std::string_view unread = body ? body->Unread() : std::string_view();
    const std::size_t end = unread.find(kLineEnd, reading.scanned);
    const bool ended = end != std::string_view::npos;
    const std::size_t lineBytes = ended ? end + kLineEnd.size() : unread.size();
    // What is unread belongs to the head as long as its line has no end.
    if (reading.headBytes + lineBytes > zr::kMaxHeadBytes ||
        (ended && end != 0 && reading.lineCount == zr::kMaxHeadLines)) {
      reading.rejected = true;
      return ZrReadResult::kRejected;
    }
    if (!ended) {
      // A CR at the end may be half of a line's end.
      reading.scanned = unread.size() - (unread.ends_with('\r') ? 1 : 0);
      return ZrReadResult::kIncomplete;
    }
    reading.inHead = end != 0 && ParseHeadLine(unread.substr(0, end));
    body->Consume(lineBytes);
    reading.headBytes += lineBytes;
    reading.scanned = 0;
    if (reading.inHead) continue;
    const bool framed = FinishHead();
    const bool wanted = end != 0 || callback(*this);
    reading.rejected = !framed || !wanted;
    if (reading.rejected) return ZrReadResult::kRejected;
  }
  return reading.lengthDeclared ? BodyState() : ZrReadResult::kComplete;
}

// Where the message ends. A request whose end others on its way may see elsewhere is no request: in
// what one of them takes for its body, a stranger could send another one in somebody's name.
bool ZrXHeader::FinishHead() {
  if (headers.First("connection").find("close") != std::string_view::npos) closeRequested = true;
  const ZrHeaderFields::Values lengths = headers["content-length"];
  reading.lengthDeclared = !lengths.empty();
  if (kind != ZrMessageKind::kRequest) {
    if (reading.lengthDeclared) declaredLength = zr::ParseDigits(lengths.front()).value_or(0);
    return declaredLength <= zr::kMaxBodyBytes;
  }
  if (reading.ambiguous || headers.contains("transfer-encoding")) return false;
  // The body of a request without a length is what has arrived; its rest may still be on its way.
  endUncertain =
      reading.emptyLength || (!reading.lengthDeclared && messageType != ZrMessageType::kGet);
  if (reading.emptyLength && reading.lengthDeclared) return false;
  std::optional<std::uint64_t> agreed;
  const bool agree = zr::AllListElements(lengths, [this, &agreed](std::string_view element) {
    const std::optional<std::uint64_t> digits = zr::ParseDigits(element);
    endUncertain = endUncertain || !digits;
    const std::uint64_t length = digits.value_or(0);
    if (!agreed) agreed = length;
    return *agreed == length;
  });
  declaredLength = agreed.value_or(0);
  return agree && declaredLength <= zr::kMaxBodyBytes;
}

bool ZrXHeader::ParseHeadLine(std::string_view line) {
  const bool goOn = reading.lineCount == 0 ? ParseFirstLine(line) : (ParseFieldLine(line), true);
  if (HasControls(line) && HidesAnother(line)) reading.ambiguous = true;
  ++reading.lineCount;
  return goOn;
}

// Answers whether the line was recognised; any other ends the head.
bool ZrXHeader::ParseFirstLine(std::string_view line) {
  headers.Reserve(std::min(body->Size(), zr::kMaxHeadBytes) + zr::kFirstLine.size() + kWordBytes,
                  kUsualLines);
  const FirstWords parts(line);
  const std::string_view first = parts.words[0];

  ZrMessageKind lineKind = ZrMessageKind::kUnrecognised;
  if (parts.firstEnded) {
    const auto known = std::find_if(kTypeNames.begin(), kTypeNames.end(),
                                    [first](const TypeName& entry) { return entry.name == first; });
    if (known != kTypeNames.end()) {
      messageType = known->type;
      method = known->type == ZrMessageType::kPost ? ZrMethod::kPost : ZrMethod::kGet;
      lineKind = ZrMessageKind::kRequest;
    } else if (first.starts_with("HTTP/") || first.starts_with("QUARN/")) {
      lineKind = ZrMessageKind::kResponse;
    }
  }
  kind = lineKind;
  // Only the last ones may be missing.
  std::size_t count = 0;
  while (count < parts.words.size() && !parts.words[count].empty()) ++count;
  headers.Append(zr::kFirstLine, std::span(parts.words).first(count));
  if (!parts.words[1].empty()) ParseTarget(parts.words[1]);
  return lineKind != ZrMessageKind::kUnrecognised;
}

// "Name: value" with the name in lower case, and all blanks dropped; in standard semantics those of
// a value are its own, but for the ones around it. A colon in front of a name or of a value is
// skipped; the first one behind the name ends it, later ones belong to the value. Both are written
// where they stay.
void ZrXHeader::ParseFieldLine(std::string_view line) {
  char* const start = headers.Space(line.size() + kWordBytes);
  char* out = start;
  std::size_t at = 0;
  for (; at < line.size(); ++at) {
    const char c = line[at];
    if (c == ':') {
      if (out != start) break;
    } else if (!IsBlank(c)) {
      *out++ = Lower(c);
    }
  }
  const std::string_view name(start, static_cast<std::size_t>(out - start));
  const char* const value = out;
  while (at < line.size() && (line[at] == ':' || IsBlank(line[at]))) ++at;
  line.remove_prefix(at);
  if (semantics->IsStandard()) {
    line = zr::Trim(line, " \t\r");
    out = std::copy(line.begin(), line.end(), out);
  } else {
    out = CopyWithoutBlanks(line, out);
  }
  if (!name.empty() && out != value)
    return headers.Enter(name.size(), static_cast<std::size_t>(out - value));
  // A field without a value counts as absent; these two may mean something to others all the same.
  reading.ambiguous = reading.ambiguous || name == "transfer-encoding";
  reading.emptyLength = reading.emptyLength || name == "content-length";
}

void ZrXHeader::ParseTarget(std::string_view text) {
  const std::size_t mark = text.find('?');
  path = text.substr(0, mark);
  if (mark == std::string_view::npos || messageType != ZrMessageType::kGet) return;
  query = text.substr(mark + 1);
  zr::AppendUrlEncoded(*this, query, false);
  for (const auto& block : blocks) {
    if (block->Name().empty()) continue;
    allFields.insert_or_assign(std::string(block->Name()), block.get());
    queryFields.insert_or_assign(std::string(block->Name()), block.get());
  }
}

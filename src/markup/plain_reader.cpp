#include "markup/plain_reader.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "markup/byte_scan.h"
#include "markup/xml_nodes.h"

// What every token goes through.
#define ZR_INLINE [[gnu::always_inline]] inline

namespace zr {

namespace {

constexpr std::ptrdiff_t kLoad = sizeof(Bytes16);
constexpr std::ptrdiff_t kMostText = 1024;  // in one token

unsigned Count(unsigned bits) {
  unsigned count = 0;
  for (; bits != 0; bits &= bits - 1) ++count;
  return count;
}

// The bits below the lowest one, all where there is none.
unsigned Below(unsigned bits) { return bits != 0 ? (bits & -bits) - 1 : ~0u; }

std::size_t SizeOfText(std::size_t size) {
  return size > ZrShortText::kInside ? NodePool::PieceSize(size) : 0;
}

std::uint64_t LoadWord(const char* from) {
  std::uint64_t word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// A word whose first byte in memory is its highest.
std::uint64_t Ordered(std::uint64_t word) {
  if constexpr (std::endian::native == std::endian::big) return word;
  return __builtin_bswap64(word);
}

// The first so many bytes of a word, at least one, with zeros behind them.
std::uint64_t FirstBytes(std::uint64_t word, std::size_t count) {
  if (count >= 8) return word;
  const auto cut = static_cast<unsigned>(64 - 8 * count);
  if constexpr (std::endian::native == std::endian::big) return word >> cut << cut;
  return word << cut >> cut;
}

}  // namespace

PlainReader::PlainReader(ZrXMLContentSplitter& splitter, ZrDTDElementReader& reader, ZrDTD& dtd)
    : splitter_(splitter),
      reader_(reader),
      dtd_(dtd),
      pool_(reader.pool_),
      names_(reader.names_),
      current_(splitter.current) {}

bool PlainReader::Run() {
  // Below a node that this parse made there are no hooks; a body is there since it was opened.
  if (!IsOpen() || current_->body_ == nullptr || reader_.UnreadSize() < kLoad) return false;
  kind_ = dtd_.Name().shared_;
  if ((kind_->references.load(std::memory_order_relaxed) & NameText::kPermanent) == 0) return false;
  const char* const first = reader_.window_.data();
  at_ = first;
  last_ = first + reader_.UnreadSize() - kLoad;
  try {
    if (dtd_.KindOfNodes() == ZrDTD::Nodes::kPlainXml)
      ReadTokens<true>();
    else
      ReadTokens<false>();
  } catch (const std::bad_alloc&) {
    // The parser meets it again at this token, and has its own words for it.
  }
  reader_.window_.Consume(static_cast<std::size_t>(at_ - first));
  splitter_.current = current_;
  return at_ != first;
}

bool PlainReader::IsOpen() const {
  constexpr unsigned kBoth = ZrXMLComplexElement::kAsRead | ZrXMLComplexElement::kClosed;
  return (current_->flags_ & kBoth) == ZrXMLComplexElement::kAsRead;
}

template <bool plain>
void PlainReader::ReadTokens() {
  const bool startTags = dtd_.KindOfNodes() >= ZrDTD::Nodes::kPlainDocument;
  const char* next = at_;
  do {
    at_ = next;
    if (at_ > last_ || !IsOpen()) return;
    if (*at_ != '<')
      next = kWhitespace.Has(*at_) ? ReadWhitespace() : ReadText();
    else if (at_[1] == '/')
      next = ReadEndTag();
    else
      next = startTags ? ReadStartTag<plain>() : nullptr;
  } while (next != nullptr);
}

ZR_INLINE ZrShortText::Source PlainReader::CutText(const char* text, std::size_t size) {
  return {text, size, size > ZrShortText::kInside ? pool_.Cut(size) : nullptr};
}

template <class Node>
ZR_INLINE void PlainReader::MakeText(const char* end) {
  const auto size = static_cast<std::size_t>(end - at_);
  if (size <= ZrShortText::kInside) [[likely]] {
    pool_.Reserve(NodePool::PieceSize(sizeof(Node)));
    Link(new (pool_.Cut(sizeof(Node))) Node(ZrShortText::Source{at_, size, nullptr}));
    return;
  }
  pool_.Reserve(NodePool::PieceSize(sizeof(Node)) + SizeOfText(size));
  void* const place = pool_.Cut(sizeof(Node));
  Link(new (place) Node(CutText(at_, size)));
}

ZR_INLINE void PlainReader::Link(ZrXMLComplexElement* node) {
  current_->body_->children.Insert(nullptr, node);
  node->link_.parent = current_;
}

const char* PlainReader::ReadText() {
  for (const char* from = at_; from <= last_; from += kLoad) {
    const unsigned ends = BitsOf(EndText(Load16(from)));
    if (ends == 0) continue;
    const char* const end = from + std::countr_zero(ends);
    if (end - at_ > kMostText) return nullptr;
    MakeText<ZrXMLGenericText>(end);
    return end;
  }
  return nullptr;
}

const char* PlainReader::ReadWhitespace() {
  if (!kWhitespace.Has(at_[1])) {  // between two words
    reader_.line_ += *at_ == '\n';
    MakeText<ZrXMLGenericWhitespace>(at_ + 1);
    return at_ + 1;
  }
  std::uint64_t lineFeeds = 0;
  for (const char* from = at_; from <= last_; from += kLoad) {
    const Bytes16 bytes = Load16(from);
    const unsigned others = ~BitsOf(AreWhitespace(bytes)) & 0xffff;
    lineFeeds += Count(BitsOf(Equal(bytes, '\n')) & Below(others));
    if (others == 0) continue;
    const char* const end = from + std::countr_zero(others);
    if (end - at_ > kMostText) return nullptr;
    MakeText<ZrXMLGenericWhitespace>(end);
    reader_.line_ += lineFeeds;
    return end;
  }
  return nullptr;
}

const char* PlainReader::ReadEndTag() {
  const std::string& name = current_->name_.shared_->text;
  const char* const end = at_ + 2 + name.size();
  ZrXMLComplexElement* const parent = current_->Parent();
  if (end > last_ || *end != '>' || std::memcmp(at_ + 2, name.data(), name.size()) != 0 ||
      parent == nullptr || !current_->body_->extras.HasUncounted(*kind_))
    return nullptr;
  current_ = parent;
  if (splitter_.depth != 0) --splitter_.depth;
  return end + 1;
}

// Names of up to sixteen bytes are found by these; longer ones are looked up as texts.
template <bool plain>
ZR_INLINE const char* PlainReader::ReadName(const char* at, Name& name) {
  if (at > last_ || !(plain ? kNameStart : kXmlNameStart).Has(*at)) return nullptr;
  const unsigned others = ~BitsOf(AreOfName<plain>(Load16(at))) & 0xffff;
  const std::uint64_t first = LoadWord(at);
  if (others != 0) [[likely]] {
    const auto size = static_cast<std::size_t>(std::countr_zero(others));
    const std::uint64_t head = FirstBytes(first, size);
    const std::uint64_t tail = size > 8 ? FirstBytes(LoadWord(at + 8), size - 8) : 0;
    name = {&names_.InternShort(head, tail, std::string_view(at, size)), Ordered(head)};
    return at + size;
  }
  const char* end = at + kLoad;
  while (end <= last_ && (plain ? kNameBytes : kXmlNameBytes).Has(*end)) ++end;
  if (end > last_) return nullptr;
  name = {&names_.InternText(std::string_view(at, static_cast<std::size_t>(end - at))),
          Ordered(first)};
  return end;
}

const char* PlainReader::SkipWhitespace(const char* at) {
  for (; at <= last_ && kWhitespace.Has(*at); ++at) lineFeeds_ += *at == '\n';
  return at <= last_ ? at : nullptr;
}

template <bool plain>
const char* PlainReader::ReadAttribute(const char* at) {
  if (count_ == kMostAttributes) return nullptr;
  Attribute& attribute = attributes_[count_++];
  const char* const equals = ReadName<plain>(at, attribute.name);
  if (equals == nullptr || equals > last_ || *equals != '=') return nullptr;
  const char quote = equals[1];
  if (quote != '"' && quote != '\'') return nullptr;
  attribute.value = equals + 2;
  for (const char* from = attribute.value; from <= last_; from += kLoad) {
    const Bytes16 bytes = Load16(from);
    const unsigned quotes = BitsOf(Equal(bytes, quote));
    lineFeeds_ += Count(BitsOf(Equal(bytes, '\n')) & Below(quotes));
    if (quotes == 0) continue;
    const char* const end = from + std::countr_zero(quotes);
    attribute.size = static_cast<std::size_t>(end - attribute.value);
    memory_ += NodePool::PieceSize(sizeof(ZrXMLGenericAttribute)) + SizeOfText(attribute.size);
    return memory_ <= kMostText ? end + 1 : nullptr;
  }
  return nullptr;
}

// Two of one name are for the parser.
bool PlainReader::OrderAttributes() {
  const auto before = [](const Attribute& a, const Attribute& b) {
    return a.name.order != b.name.order ? a.name.order < b.name.order
                                        : a.name.text->text < b.name.text->text;
  };
  Attribute* const first = attributes_.data();
  for (std::size_t i = 1; i < count_; ++i) {
    if (before(first[i - 1], first[i])) continue;
    Attribute* const place = std::lower_bound(first, first + i, first[i], before);
    if (!before(first[i], *place)) return false;
    std::rotate(place, first + i, first + i + 1);
  }
  return true;
}

template <bool plain>
const char* PlainReader::ReadStartTag() {
  count_ = 0;
  memory_ = 0;
  lineFeeds_ = 0;
  Name name;
  const char* at = ReadName<plain>(at_ + 1, name);
  if (at == nullptr || splitter_.depth >= ZrXMLContentSplitter::kMaxDepth) return nullptr;
  if (*at != '>' && *at != '/' && !kWhitespace.Has(*at)) return nullptr;
  while (at != nullptr && at <= last_) {
    if (*at == '>' || (*at == '/' && at[1] == '>')) {
      if (count_ > 1 && !OrderAttributes()) return nullptr;
      MakeElement(*name.text, plain, *at == '/');
      reader_.line_ += lineFeeds_;
      return at + (*at == '/' ? 2 : 1);
    }
    at = kWhitespace.Has(*at) ? SkipWhitespace(at) : ReadAttribute<plain>(at);
  }
  return nullptr;
}

void PlainReader::MakeElement(NameText& name, bool ownLine, bool selfClosed) {
  const bool withBody = !selfClosed || count_ != 0;
  const std::size_t sizeOfMap = count_ != 0 ? ZrAttributeMap::SizeFor(count_) : 0;
  pool_.Reserve(NodePool::PieceSize(sizeof(ZrXMLGenericElement)) +
                NodePool::PieceSize(sizeof(ZrElementBody)) + NodePool::PieceSize(sizeOfMap) +
                memory_);
  auto* const element = new (pool_.Cut(sizeof(ZrXMLGenericElement)))
      ZrXMLGenericElement(ZrXMLComplexElement::AsRead{name, ownLine});
  if (withBody) element->body_ = new (pool_.Cut(sizeof(ZrElementBody))) ZrElementBody;
  if (count_ != 0) {
    ZrAttributeMap& map = element->body_->attributes;
    map.Begin(pool_.Cut(sizeOfMap), count_);
    for (std::size_t i = 0; i < count_; ++i) {
      const Attribute& a = attributes_[i];
      void* const place = pool_.Cut(sizeof(ZrXMLGenericAttribute));
      map.EnterLast(*a.name.text, new (place) ZrXMLGenericAttribute(CutText(a.value, a.size)));
    }
  }
  Link(element);
  if (selfClosed) return;
  element->body_->extras.SetUncounted(*kind_);
  current_ = element;
  ++splitter_.depth;
}

}  // namespace zr

#undef ZR_INLINE

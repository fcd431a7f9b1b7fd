#include "markup/name.h"

#include <bit>
#include <cstring>

const std::string& ZrName::Empty() noexcept {
  // Storage that outlives every static: a name may be asked after the program's statics are gone.
  union Forever {
    Forever() : text() {}
    ~Forever() {}
    std::string text;
  };
  static const Forever empty;
  return empty.text;
}

zr::NameText* ZrName::Copy(std::string_view text) {
  if (text.empty()) return nullptr;
  return new zr::NameText{{1}, std::string(text)};
}

namespace {

template <class Word>
std::uint64_t Load(const char* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// Up to eight bytes as one word, by loads that may overlap.
std::uint64_t LoadUpTo8(const char* bytes, std::size_t count) {
  if (count >= 4) return Load<std::uint32_t>(bytes) | Load<std::uint32_t>(bytes + count - 4) << 32;
  if (count >= 2) return Load<std::uint16_t>(bytes) | Load<std::uint16_t>(bytes + count - 2) << 16;
  return static_cast<unsigned char>(*bytes);
}

// A few instructions for the few bytes of a name; the table copes with collisions.
std::size_t HashOf(std::string_view text) {
  constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15u;
  std::uint64_t hash = text.size();
  const char* p = text.data();
  std::size_t left = text.size();
  for (; left > 8; p += 8, left -= 8) hash = std::rotl((hash ^ Load<std::uint64_t>(p)) * kOdd, 29);
  hash = (hash ^ LoadUpTo8(p, left)) * kOdd;
  return static_cast<std::size_t>(hash ^ hash >> 32);
}

}  // namespace

zr::NameText* ZrNameTable::Make(std::string_view text) {
  auto* const name =
      new zr::NameText{{zr::NameText::kPermanent | zr::NameText::kOfParse}, std::string(text)};
  pool_.Keep(name);
  return name;
}

zr::NameText& ZrNameTable::InternText(std::string_view text) {
  if (used_ * 2 >= slots_.size()) Grow();
  const std::size_t hash = HashOf(text);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t probe = 0; probe < kLongestProbe; ++probe) {
    Slot& slot = slots_[(hash + probe) & mask];
    if (slot.name == nullptr) {
      slot.name = Make(text);
      slot.hash = hash;
      ++used_;
      return *slot.name;
    }
    if (slot.hash == hash && slot.name->text == text) return *slot.name;
  }
  return *Make(text);
}

void ZrNameTable::Grow() {
  std::vector<Slot> old(slots_.empty() ? 64 : slots_.size() * 2);
  old.swap(slots_);
  const std::size_t mask = slots_.size() - 1;
  used_ = 0;
  for (const Slot& entry : old) {
    if (entry.name == nullptr) continue;
    std::size_t probe = 0;
    while (probe < kLongestProbe && slots_[(entry.hash + probe) & mask].name != nullptr) ++probe;
    if (probe == kLongestProbe) continue;  // its text gets another name from here on
    slots_[(entry.hash + probe) & mask] = entry;
    ++used_;
  }
}

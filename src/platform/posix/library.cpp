#include "platform/library.h"

#include <dlfcn.h>
#include <link.h>

namespace {

// The loader's record of what this code was loaded with, null when it does not say.
const link_map* ThisLibrary() noexcept {
  Dl_info place{};
  link_map* map = nullptr;
  const bool known = ::dladdr1(reinterpret_cast<const void*>(&ThisLibrary), &place,
                               reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) != 0;
  return known ? map : nullptr;
}

bool IsProgram(const link_map& map) noexcept {
  return map.l_name == nullptr || *map.l_name == '\0';
}

}  // namespace

void* zr::HoldLibrary() noexcept {
  const link_map* const map = ThisLibrary();
  if (map == nullptr || IsProgram(*map)) return nullptr;
  return ::dlopen(map->l_name, RTLD_LAZY | RTLD_NOLOAD);
}

// The last reference takes this function and its caller with it.
ZR_ENDS_IN_CALL int zr::ReleaseLibrary(void* reference) {
  if (reference == nullptr) return 0;
  ZR_LAST_CALL return ::dlclose(reference);
}

bool zr::StayLoaded() noexcept {
  const link_map* const map = ThisLibrary();
  if (map == nullptr) return false;
  return IsProgram(*map) ||
         ::dlopen(map->l_name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

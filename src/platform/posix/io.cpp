#include "platform/io.h"

#include <string.h>

namespace zr {

const char* SystemErrorText(int error) noexcept {
  // strerror's words without its shared buffer and without the host's locale.
  const char* text = ::strerrordesc_np(error);
  return text != nullptr ? text : "Unknown error";
}

}  // namespace zr

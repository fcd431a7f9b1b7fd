#include "base/batch.h"

namespace {

// Initial-exec: no loader lock at first use, which a thread could wait for while the library is
// unloaded.
[[gnu::tls_model("initial-exec")]] thread_local ZrBatch* current = nullptr;

}  // namespace

ZrBatch::ZrBatch() noexcept : outer_(current) { current = this; }

ZrBatch::~ZrBatch() { current = outer_; }

ZrBatch* ZrBatch::Current() noexcept { return current; }

#include "engine/Cancellation.h"

namespace quillane::Cancellation {
namespace {
thread_local const Flag* installed = nullptr;
}

Scope::Scope(const Flag* flag) noexcept : previous_(installed) { installed = flag; }
Scope::~Scope() { installed = previous_; }

bool requested() noexcept { return installed && installed->load(std::memory_order_relaxed); }

const Flag* current() noexcept { return installed; }

void check() {
  if (requested()) throw Cancelled{};
}

}  // namespace quillane::Cancellation

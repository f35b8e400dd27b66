#include "engine/Cancellation.h"

#include "engine/Errors.h"

namespace quillane::Cancellation {
namespace {
thread_local const Flag* current = nullptr;
}

Scope::Scope(const Flag* flag) noexcept : previous_(current) { current = flag; }
Scope::~Scope() { current = previous_; }

bool requested() noexcept { return current && current->load(std::memory_order_relaxed); }

void check() {
  if (requested()) throw ImageProcessingError::decodingFailed("cancelled");
}

}  // namespace quillane::Cancellation

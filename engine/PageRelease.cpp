#include "engine/PageRelease.h"

#include <sys/mman.h>
#include <unistd.h>

namespace quillane::PageRelease {

void release(uint8_t* begin, size_t bytes) noexcept {
  static const uintptr_t page = uintptr_t(::sysconf(_SC_PAGESIZE));
  const uintptr_t start = (reinterpret_cast<uintptr_t>(begin) + page - 1) / page * page;
  const uintptr_t end = (reinterpret_cast<uintptr_t>(begin) + bytes) / page * page;
  // A failure leaves the pages where they are: nothing lost but the saving.
  if (end > start) ::madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTNEED);
}

}  // namespace quillane::PageRelease

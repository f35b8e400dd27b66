#include "engine/PageRelease.h"

#include <sys/mman.h>
#include <unistd.h>

namespace quillane::PageRelease {
namespace {

uintptr_t pageSize() {
  static const uintptr_t page = uintptr_t(::sysconf(_SC_PAGESIZE));
  return page;
}

}  // namespace

void release(uint8_t* begin, size_t bytes) noexcept {
  const uintptr_t page = pageSize();
  const uintptr_t start = (reinterpret_cast<uintptr_t>(begin) + page - 1) / page * page;
  const uintptr_t end = (reinterpret_cast<uintptr_t>(begin) + bytes) / page * page;
  // A failure leaves the pages where they are: nothing lost but the saving.
  if (end > start) ::madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTNEED);
}

void Releaser::readUpTo(size_t end) noexcept {
  if (!buffer_ || end < released_ + kStep) return;
  // From the start of the page where the last release stopped (at least kStep, far more than
  // a page, into the buffer): that page lies wholly inside the buffer once it has been read.
  const uintptr_t at = reinterpret_cast<uintptr_t>(buffer_ + released_) / pageSize() * pageSize();
  const size_t from = released_ == 0 ? 0 : size_t(at - reinterpret_cast<uintptr_t>(buffer_));
  release(buffer_ + from, end - from);
  released_ = end;
}

}  // namespace quillane::PageRelease

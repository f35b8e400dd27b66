#include "engine/SystemMemory.h"

#include <unistd.h>

namespace quillane {

uint64_t physicalMemoryBytes() noexcept {
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  return pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) : 0;
}

}  // namespace quillane

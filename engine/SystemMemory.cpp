#include "engine/SystemMemory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace quillane {

uint64_t physicalMemoryBytes() noexcept {
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  return pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) : 0;
}

uint64_t usableMemoryBytes() noexcept {
  const uint64_t physical = physicalMemoryBytes();
  uint64_t usable = physical > 0 ? physical : UINT64_MAX;
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
    usable = std::min<uint64_t>(usable, limit.rlim_cur);
  return usable;
}

}  // namespace quillane

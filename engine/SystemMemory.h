#pragma once
// The machine's memory, for the rules that size work by it. Any thread.

#include <cstdint>

namespace quillane {

// The physical memory in bytes; 0 when the system does not tell.
uint64_t physicalMemoryBytes() noexcept;

}  // namespace quillane

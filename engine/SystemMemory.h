#pragma once
// The machine's memory, for the rules that size work by it. Any thread.

#include <cstdint>

namespace quillane {

// The physical memory in bytes; 0 when the system does not tell.
uint64_t physicalMemoryBytes() noexcept;

// What this process can hold: the physical memory, within its address-space limit
// (RLIMIT_AS); UINT64_MAX when neither is known.
uint64_t usableMemoryBytes() noexcept;

}  // namespace quillane

#pragma once
// Handing the memory of a picture back to the system while an encoder reads it, so that a
// library's own copy of the picture and ours are never both whole at once.

#include <cstddef>
#include <cstdint>

namespace quillane::PageRelease {

// Gives the whole pages that lie inside [begin, begin + bytes) back to the system; the rest
// stays as it is. Those bytes read as zeros afterwards (Linux's MADV_DONTNEED on private
// memory), so the buffer they belong to is spent: its owner may only free it. Any thread.
void release(uint8_t* begin, size_t bytes) noexcept;

// Releases a buffer front to back as its rows are read: each call to `readUpTo(end)` gives
// back what lies before `end` (in steps of at least `kStep`, so that the calls stay rare).
// Does nothing when made with a null buffer.
class Releaser {
 public:
  static constexpr size_t kStep = 1 << 20;
  explicit Releaser(uint8_t* buffer) : buffer_(buffer) {}
  void readUpTo(size_t end) noexcept;

 private:
  uint8_t* buffer_;
  size_t released_ = 0;
};

}  // namespace quillane::PageRelease

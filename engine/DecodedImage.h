#pragma once
// A decoded frame: the system's picture type between the reader and the encoders.

#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "engine/ColorSpace.h"

namespace quillane {

// An allocator whose default construction leaves a sample unset: growing a vector of samples
// (`resize(n)`, or constructing it with a size) neither writes nor touches the new memory, so
// that a large picture's pages are faulted in only as its rows are written. Whoever grows such
// a vector writes every sample before anything reads it.
template <class T>
struct UninitializedAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UninitializedAllocator<U>;
  };
  UninitializedAllocator() = default;
  template <class U>
  UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}
  template <class U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
template <class T>
using SampleVector = std::vector<T, UninitializedAllocator<T>>;

enum class AlphaInfo {
  none,           // opaque: the alpha samples are all at their maximum
  straight,       // alpha present, colour not premultiplied
  premultiplied,  // alpha present, colour premultiplied
};

// Pixels are always four interleaved samples R, G, B, A, row-major from the top, with no
// padding between rows. An 8-bit image fills `pixels8`, a 16-bit one `pixels16` (native
// endianness). Grey and CMYK sources arrive here already converted to RGB. Growing either leaves
// the new samples unset (SampleVector).
struct DecodedImage {
  int width = 0;
  int height = 0;
  int bitsPerComponent = 8;  // 8 or 16
  AlphaInfo alpha = AlphaInfo::none;
  SampleVector<uint8_t> pixels8;
  SampleVector<uint16_t> pixels16;
  ColorSpace colorSpace;

  bool empty() const { return width <= 0 || height <= 0; }
  bool hasAlphaChannel() const { return alpha != AlphaInfo::none; }
  size_t pixelCount() const { return size_t(width) * size_t(height); }
};

// Largest picture the system accepts, in pixels: checked against the header before any
// pixel memory is allocated, so that a file claiming absurd dimensions (a decompression
// bomb) fails with decodingFailed instead of exhausting memory. 512 megapixels is far above
// any camera and below what 24 GB of memory can hold through the pipeline (about 20 bytes a
// pixel at the peak).
inline constexpr uint64_t kMaxPixels = 512ull * 1000 * 1000;
// Largest side accepted, in pixels (the PNG and JPEG XL headers allow far more).
inline constexpr int kMaxDimension = 1 << 18;

}  // namespace quillane

#pragma once
// Ownership of C library objects: a unique_ptr whose deleter calls the library's own release
// function, so that an object is freed on every path, early returns and exceptions included.
//
//   using DecoderPtr = CHandle<avifDecoder, avifDecoderDestroy>;
//   DecoderPtr decoder(avifDecoderCreate());
//
// Aliases used by more than one file of a library live beside it (LcmsHandles.h,
// codecs/HeifHandles.h); the others stay in the one file that uses them.

#include <memory>

namespace quillane {

template <auto Fn>
struct CDeleter {
  template <class T>
  void operator()(T* p) const noexcept {
    if (p) Fn(p);
  }
};

template <class T, auto Fn>
using CHandle = std::unique_ptr<T, CDeleter<Fn>>;

}  // namespace quillane

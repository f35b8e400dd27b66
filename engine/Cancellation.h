#pragma once
// Cooperative cancellation of long engine work on the calling thread. A caller that may give
// up on a call (the batch's watchdog) owns an atomic flag and installs it for the call with a
// Scope. The pipeline polls it between its stages, and the codecs where their libraries let
// them:
// - decoding: libjpeg's progress monitor (between scans and rows), libpng's rows, libjxl's
//   events, libwebp's incremental decoder (between slices of the input, so a picture that
//   expands hugely from few bytes still finishes its slice);
// - encoding: libwebp's progress hook, libjxl's rounds of output, libimagequant's progress
//   callbacks (quantizing and remapping), and our own PNG writer between rows and deflate
//   blocks;
// - the perceptual distance: between libjxl's comparisons (a picture, or a tile of one).
// The others offer nothing that stops a call once started: libheif 1.15's decode progress
// callbacks return void, its encode (x265 for HEIC) has no callback at all, and libavif 0.11
// has none for decoding or for encoding through aom; those calls run to their end and their
// result is dropped. libjxl 0.7 has a hook, its parallel runner, but must not be given one
// that fails: some of its passes abort the process on a failed work item (the butteraugli
// comparator's colour conversion, the decoder's groups), so its passes run to their end too.
// A raised flag ends the call by throwing Cancelled, with every library object released on the
// way out.

#include <atomic>

namespace quillane::Cancellation {

using Flag = std::atomic<bool>;

// What a cancelled call throws. Deliberately no std::exception: the fallbacks that catch one
// (a second encoding after a failed first, a picture without its profile) must not take a
// cancellation for a failure and go on working. Thread edges catch it by name or with (...).
struct Cancelled final {
  const char* what() const noexcept { return "cancelled"; }
};

// Installs `flag` for this thread until the scope ends (scopes nest; the innermost wins).
class Scope {
 public:
  explicit Scope(const Flag* flag) noexcept;
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  const Flag* previous_;
};

// Whether this thread's call was asked to stop. Cheap enough for every row.
bool requested() noexcept;
// Throws Cancelled when requested().
void check();
// This thread's flag (nullptr when none), for library callbacks that may run on other
// threads: they test it with raised().
const Flag* current() noexcept;
inline bool raised(const void* flag) noexcept {
  return flag && static_cast<const Flag*>(flag)->load(std::memory_order_relaxed);
}

}  // namespace quillane::Cancellation

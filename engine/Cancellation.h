#pragma once
// Cooperative cancellation of long engine work on the calling thread. A caller that may give
// up on a call (the batch's watchdog) owns an atomic flag and installs it for the call with a
// Scope; the readers poll it where their libraries let them (libjpeg's progress monitor,
// libpng's rows, libjxl's parallel runner; libheif, libavif and libwebp offer no such hook)
// and the pipeline between its stages. A raised flag ends the call with
// ImageProcessingError::decodingFailed.

#include <atomic>

namespace quillane::Cancellation {

using Flag = std::atomic<bool>;

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
// Throws ImageProcessingError::decodingFailed("cancelled") when requested().
void check();

}  // namespace quillane::Cancellation

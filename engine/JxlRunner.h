#pragma once
// libjxl's work on the calling thread, item by item as its own serial fallback does it, and
// stopping between items once the call's cancellation flag (the runner's opaque pointer,
// Cancellation::current() when it was set) is raised: the failed status ends the decode or
// encode.

#include <jxl/parallel_runner.h>

#include "engine/Cancellation.h"

namespace quillane::JxlRunner {

inline JxlParallelRetCode runCancellably(void* flag, void* opaque, JxlParallelRunInit init,
                                         JxlParallelRunFunction run, uint32_t start, uint32_t end) {
  if (const JxlParallelRetCode status = init(opaque, 1); status != 0) return status;
  for (uint32_t item = start; item < end; ++item) {
    if (Cancellation::raised(flag)) return -1;
    run(opaque, item, 0);
  }
  return 0;
}

}  // namespace quillane::JxlRunner

#pragma once
// The libheif objects that both the reader and the writer hold, owned (see CHandle.h).

#include <libheif/heif.h>

#include "engine/CHandle.h"

namespace quillane::codecs {

using HeifContextPtr = CHandle<heif_context, heif_context_free>;
using HeifHandlePtr = CHandle<heif_image_handle, heif_image_handle_release>;
using HeifImagePtr = CHandle<heif_image, heif_image_release>;

}  // namespace quillane::codecs

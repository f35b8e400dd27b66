#pragma once
// lcms2 profiles and transforms, owned (see CHandle.h).

#include <lcms2.h>

#include "engine/CHandle.h"

namespace quillane {

using CmsProfilePtr = CHandle<void, cmsCloseProfile>;
using CmsTransformPtr = CHandle<void, cmsDeleteTransform>;

}  // namespace quillane

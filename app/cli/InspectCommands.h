#pragma once
// The read-only verbs of quillane-cli: what the engine sees in a file (inspect) and how it
// would encode it in every format (analyze). Each returns one JSON array with one object a
// file, in the order given; a file that fails gives an object with its path and the error's
// description, and never stops the others. Paths are file system bytes, given back as they are.

#include <string>
#include <vector>

#include "engine/EncodingStrategy.h"
#include "engine/Json.h"

namespace quillane::cli {

// path, format (raw value), pixelWidth, pixelHeight, fileSizeBytes, frameCount.
JsonValue inspect(const std::vector<std::string>& paths);

// path, characteristics (the analyzer's eleven measurements) and plans (one per format,
// keyed by raw value) at the perceptual `quality`.
JsonValue analyze(const std::vector<std::string>& paths, double quality);

// The JSON forms used by analyze, exposed for tests.
JsonValue characteristicsJson(const ImageCharacteristics& characteristics);
JsonValue planJson(const EncodingPlan& plan);

}  // namespace quillane::cli

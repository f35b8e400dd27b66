#pragma once
// Whether a JPEG or PNG file holds a whole picture, read from its structure alone: a PNG's
// chunks up to IEND, a JPEG's segments and entropy-coded data up to its end-of-image marker
// (what follows it, padding or an appended video, is not looked at). A file cut short by a
// writer that has not finished reads as incomplete, where a decoder would fill the missing
// rows in grey. Other formats, and files of which this can't be said, count as complete: the
// decoder judges them. Reads the file with bounded memory; any thread.

#include <string>

#include "engine/ImageFormat.h"

namespace quillane::FileCompleteness {

bool isComplete(const std::string& path, ImageFormat format);

}  // namespace quillane::FileCompleteness

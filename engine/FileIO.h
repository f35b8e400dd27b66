#pragma once
// Whole-file reading and atomic writing, for the engine's one-shot callers.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace quillane::FileIO {

// Throws FileError with the system's text.
std::vector<uint8_t> readFile(const std::string& path);

// Writes to a temporary file in the same folder, syncs it and renames it over `path`, so
// that a reader sees the old file or the new one, never part of one; the temporary file is
// removed on every failure. Throws FileError.
void writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes);

}  // namespace quillane::FileIO

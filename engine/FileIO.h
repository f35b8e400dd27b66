#pragma once
// Whole-file reading and atomic writing, for the engine's one-shot callers.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace quillane::FileIO {

// Throws FileError with the system's text.
std::vector<uint8_t> readFile(const std::string& path);

// The one writer of every file the program makes. Writes to a temporary file in the same
// folder, named ".quillane-XXXXXX.tmp" (short, so that final names of up to 255 bytes work,
// and recognisable when a crash leaves one behind), syncs it and renames it over `path`. A
// reader sees the old file or the new one, never part of one, and a symbolic link at `path`
// is replaced, never written through. The temporary file is removed on every failure. The
// first write into a folder in this process also removes temporaries of that form older
// than a day (staleTemporaryAge). `path` is file system bytes. Any thread. Throws FileError.
void writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes);

inline constexpr char temporaryPrefix[] = ".quillane-";
inline constexpr char temporarySuffix[] = ".tmp";
inline constexpr long long staleTemporaryAgeSeconds = 24 * 60 * 60;

}  // namespace quillane::FileIO

#pragma once
// Whole-file reading and atomic writing, for the engine's one-shot callers.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "engine/Errors.h"

namespace quillane::FileIO {

// A path that names a folder, a device, a pipe or a socket where a file was to be read.
class NotARegularFile : public FileError {
 public:
  explicit NotARegularFile(const std::string& path) : FileError(path, "not a regular file") {}
};

// A file that could not be written. Its description names where: the folder (read-only,
// full, missing), or the destination itself when only the final rename failed (a folder in
// its place, say), since the system's reason alone does not say which folder it was.
class WriteError : public FileError {
 public:
  WriteError(const std::string& path, std::string place, const std::string& reason)
      : FileError(path, reason), place_(std::move(place)) {}
  std::string description() const override { return place_ + ": " + FileError::description(); }

 private:
  std::string place_;
};

// Sees the first bytes of a file (at most `headBytes` of readFile) and the file's size before
// the rest is read, and throws to refuse the file.
using HeadCheck = std::function<void(std::span<const uint8_t> head, uint64_t fileSize)>;

// Reads a regular file whole, at most the size it had when opened. Anything else is refused
// at once, without blocking: the path is opened non-blocking and the opened descriptor is
// checked, so that a pipe with no writer or a device never stalls the caller and /dev/zero
// is never read. Throws NotARegularFile for those, FileError with the system's text for the
// rest, and whatever `check` throws.
std::vector<uint8_t> readFile(const std::string& path, const HeadCheck& check = {}, size_t headBytes = 64);

// The first `headBytes` of a regular file (fewer when it is shorter), refused as readFile refuses.
std::vector<uint8_t> readHead(const std::string& path, size_t headBytes);

// The one writer of every file the program makes. Writes to a temporary file in the same
// folder, named ".quillane-XXXXXX.tmp" (short, so that final names of up to 255 bytes work,
// and recognisable when a crash leaves one behind), syncs it, renames it over `path` and
// syncs the folder, so that once it returns a power cut leaves the new file, never an empty
// or missing one. A reader sees the old file or the new one, never part of one, and a
// symbolic link at `path` is replaced, never written through. The temporary file is removed
// on every failure. The first write into a folder in this process also removes temporaries
// of that form older than a day (staleTemporaryAge). `path` is file system bytes. Any
// thread. Throws WriteError.
void writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes);

inline constexpr char temporaryPrefix[] = ".quillane-";
inline constexpr char temporarySuffix[] = ".tmp";
inline constexpr long long staleTemporaryAgeSeconds = 24LL * 60 * 60;

}  // namespace quillane::FileIO

#pragma once
// Whole-file reading and atomic writing, for the engine's one-shot callers.

#include <sys/stat.h>

#include <chrono>
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
// or missing one. A reader sees the old file or the new one, never part of one.
//
// Only what is ours is replaced: a regular file, or a symbolic link (replaced, never written
// through). Anything else at `path` (a folder, a pipe, a device, a socket) is refused with
// DestinationNotAFile and left as it is.
//
// The file gets `permissions` less the umask, and, when it replaces a regular file, no group
// or other bit that file did not have: a private output stays private. Callers pass
// permissionsFor(source) so that an output is no more readable than its source.
//
// The writer holds an flock on its temporary from creation to rename. Each write into a
// folder (at most once a minute per folder in this process) removes temporaries of that form
// that no process holds, which only a killed or crashed writer leaves (those on a file system
// without locks, once they are a day old). The temporary is removed on every failure. `path`
// is file system bytes. Any thread. Throws WriteError.
//
// A caller that may replace only some files passes `mayReplace`: it is shown what is at `path`
// (lstat) just before the rename, and a false answer refuses with DestinationTaken. A `path`
// that is free then is taken only while it is still free, so that a file that appears in that
// instant is not replaced either.
using ReplaceCheck = std::function<bool(const struct stat& existing)>;
void writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes, unsigned permissions = 0666,
                         const ReplaceCheck& mayReplace = {});

// For a process about to end (a signal, a quit): waits, until `deadline` at most, for the writes
// under way to finish, each leaving its whole file under its name or nothing, and holds every
// later one back for good, so that ending then leaves no temporary in a user's folder. A write
// still under way at the deadline is stuck on a volume that stopped answering (a network server
// gone, a stick pulled): ending then leaves at most its temporary, which the next write into that
// folder removes once no process holds it. False when writes are still under way. Any thread
// but one that is writing.
bool stopWritesForExit(std::chrono::steady_clock::time_point deadline);

// Opens /dev/null on each of the standard descriptors 0, 1 and 2 that the program was started
// without (`prog 2>&-`), so that no descriptor opened later (a bus connection, a file being
// read or written) takes that number, to be written to as standard output or swapped for
// /dev/null while a codec library's messages are silenced. Call first thing in main, before
// any thread. Gives the numbers of those that were closed.
std::vector<int> openClosedStandardDescriptors();

// The permissions for a file made from `source`: read and write for its owner, and for the
// group and others no more than `source` gives them (never execute). 0666 when `source`
// can't be looked at.
unsigned permissionsFor(const std::string& source);

// A destination that exists and is no regular file nor link (a folder, a pipe, a device, a
// socket): never replaced.
class DestinationNotAFile : public WriteError {
 public:
  explicit DestinationNotAFile(const std::string& path)
      : WriteError(path, path, "exists and is not a regular file; left as it is") {}
};

// A file that `mayReplace` refused was at the destination; it is left as it is.
class DestinationTaken : public WriteError {
 public:
  explicit DestinationTaken(const std::string& path)
      : WriteError(path, path, "another file has this name; left as it is") {}
};

inline constexpr char temporaryPrefix[] = ".quillane-";
inline constexpr char temporarySuffix[] = ".tmp";
inline constexpr long long staleTemporaryAgeSeconds = 24LL * 60 * 60;
// A writer locks its temporary right after creating it; younger than this, an unlocked one
// may be in that gap.
inline constexpr long long unlockedTemporaryGraceSeconds = 10;

}  // namespace quillane::FileIO

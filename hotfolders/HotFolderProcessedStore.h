#pragma once
// HotFolderProcessedStore: the memory that keeps a hot folder from compressing the same file
// twice, across scans and launches. For each hot folder it maps a file name to the size and
// modification date the file had when it was compressed with success. It lives in
// hotFolderProcessed.json, {"<FOLDER ID>": {"<file name>": {"sizeBytes":..,"modificationDate":..}}};
// an entry also names the file it wrote ("output", "outputDevice", "outputInode",
// "outputSizeBytes", "outputModificationDate"), so that a
// hot folder replaces only its own outputs and never takes a file that a hot folder wrote.
// An output whose entry goes (its source deleted, its folder removed) stays known by identity
// in "formerOutputs", a bounded list of the most recent.
//
// Nothing is cached: every operation reads the whole file and every change rewrites it, all
// under one process-wide lock, so that watchers of different folders never overwrite each
// other's maps. A missing or damaged file reads as empty (the next update then keeps only the
// folder being updated); a failed write is dropped. Any thread.

#include <QMap>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <tuple>

namespace quillane {

struct HotFolderProcessedEntry {
  int64_t sizeBytes = 0;
  // Seconds since 2001-01-01 00:00:00 UTC at the full precision of a double, so that a value
  // read back compares equal to the one written; equality has no tolerance.
  double modificationDate = 0;
  // The output written for the file: its name in the destination, and its device, inode,
  // size and modification date then (a freed inode is soon another file's: the four together
  // tell the output from a file made later).
  using Identity = std::tuple<uint64_t, uint64_t, int64_t, double>;
  struct Output {
    QString name;
    Identity identity;
    bool operator==(const Output&) const = default;
  };
  std::optional<Output> output{};

  bool operator==(const HotFolderProcessedEntry&) const = default;
};

using HotFolderProcessedMap = QMap<QString, HotFolderProcessedEntry>;  // nameKey(file name) -> entry

namespace HotFolderProcessedStore {

inline constexpr char fileName[] = "hotFolderProcessed.json";

// The former outputs kept, the oldest dropped first beyond it. Every scan reads the whole file,
// every change rewrites it, and a record is about 100 bytes there: this keeps them under half a
// megabyte while still covering a few thousand deleted sources, more than a hot folder is
// usually fed between two clear-outs. An output older than that comes back as any other file.
inline constexpr size_t formerOutputsKept = 4096;

// How the map (and an entry's "output") names a file: its name where its bytes are UTF-8, else
// "/" and its bytes percent-encoded. No file name holds "/", so two names never share a key,
// as they would once decoded with their invalid bytes replaced.
QString nameKey(const std::string& name);
// The file name's bytes that `key` stands for.
std::string fileNameOf(const QString& key);

// The map of `hotFolderID` (upper-case id text); empty when it has none.
HotFolderProcessedMap folderState(const QString& hotFolderID);

// Runs `mutate` on the folder's map (empty if none) and stores the result, even when empty;
// an output that the map no longer names joins the former outputs.
// `mutate` runs with the lock held and must not call back into the store.
void update(const QString& hotFolderID, const std::function<void(HotFolderProcessedMap&)>& mutate);

// The identity of every output that the entries of all folders name, and of the former outputs.
std::set<HotFolderProcessedEntry::Identity> outputs();

// Drops the folder's whole map; its outputs join the former outputs.
void remove(const QString& hotFolderID);

// Removes `staleNames` from the folder's map.
void pruneProcessedState(const QString& hotFolderID, const QStringList& staleNames);

}  // namespace HotFolderProcessedStore
}  // namespace quillane

#pragma once
// JSONFileStore: the folder of the application's small state files, and whole-file atomic
// JSON writes into it. Every state file holds one JSON document (a list or a map) that is
// rewritten completely at each change; there is no journal and no versioning.
//
// Any thread. Saves are synchronous on the caller's thread. Nothing here reports a failure:
// a failed save keeps the previous file, and a missing or unreadable file reads as nothing,
// which callers treat as their empty value. What a failed save could not write (a full or
// read-only disk) is what the process reads back until a save of that file is written.

#include <QJsonDocument>
#include <QString>
#include <optional>
#include <vector>

#include "engine/Json.h"
#include "records/JsonForms.h"

namespace quillane::JSONFileStore {

// $XDG_DATA_HOME/Quillane (GenericDataLocation + "/Quillane"), computed once per process.
QString folder();

// Test seam: makes folder() answer `folder` until called again; an empty string restores
// the real folder. Call it before any other thread uses the store.
void setFolderForTesting(const QString& folder);

// folder() + "/" + filename.
QString path(const QString& filename);

// Writes `value` (compact, keys in insertion order) to folder()/filename through a
// temporary file renamed over the target, creating the folder first. Silent on every
// failure, after which load() gives `value` back; a reader of the file sees the old file or
// the new one, never part of one.
void save(const JsonValue& value, const QString& filename);

// Writes again each file of folder() whose last save failed, as a process ends: a disk that
// was full may have room by then, and the next start reads what this run last saved. Those
// that fail again stay as they are.
void saveUnwritten();

// The parsed document of folder()/filename (or of its last save, if that failed); nothing
// when the file is missing, unreadable, no regular file (a pipe, folder, device or socket, or
// a link to one: never waited on), larger than 512 MiB or not valid JSON.
std::optional<QJsonDocument> load(const QString& filename);

// The list in folder()/filename with every element decoded by `decodeOne`; empty when the
// file is missing or damaged, or when any element fails to decode (JsonForms::decodeArray).
template <class T>
std::vector<T> loadList(const QString& filename, T (*decodeOne)(const QJsonObject&)) {
  const std::optional<QJsonDocument> document = load(filename);
  if (!document) return {};
  return JsonForms::decodeArray(*document, decodeOne).value_or(std::vector<T>{});
}

}  // namespace quillane::JSONFileStore

#include "hotfolders/HotFolderProcessedStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>
#include <QStringList>
#include <algorithm>
#include <mutex>
#include <vector>

#include "records/JSONFileStore.h"
#include "records/JsonForms.h"

namespace quillane::HotFolderProcessedStore {
namespace {

using Identity = HotFolderProcessedEntry::Identity;

// Outer map in file order, so that a rewrite keeps the other folders where they stood; then the
// outputs whose entries are gone (source deleted, folder removed), oldest first. Kept so that
// such an output, moved or linked back into a watched folder, is still never taken.
struct Stored {
  std::vector<std::pair<QString, HotFolderProcessedMap>> folders;
  std::vector<Identity> formerOutputs;
};

// Not a folder id (those are upper-case UUID texts).
constexpr char kFormerOutputsKey[] = "formerOutputs";

std::mutex& storeLock() {
  static std::mutex lock;
  return lock;
}

QString file() { return QString::fromLatin1(fileName); }

Identity identityOf(const QJsonObject& fields, const QString& prefix) {
  const auto key = [&](const char* name) { return prefix + QLatin1String(name); };
  return {uint64_t(JsonForms::requireInteger(fields, key("Device"))),
          uint64_t(JsonForms::requireInteger(fields, key("Inode"))),
          JsonForms::requireInteger(fields, key("SizeBytes")),
          JsonForms::requireDouble(fields, key("ModificationDate"))};
}

JsonValue& setIdentity(JsonValue& fields, const std::string& prefix, const Identity& identity) {
  return fields.set(prefix + "Device", JsonForms::integer(qint64(std::get<0>(identity))))
      .set(prefix + "Inode", JsonForms::integer(qint64(std::get<1>(identity))))
      .set(prefix + "SizeBytes", JsonForms::integer(std::get<2>(identity)))
      .set(prefix + "ModificationDate", std::get<3>(identity));
}

// Any defect anywhere makes the whole file read as empty. A file without former outputs (as
// older versions wrote it) reads as none.
Stored read() {
  const std::optional<QJsonDocument> document = JSONFileStore::load(file());
  if (!document || !document->isObject()) return {};
  Stored stored;
  try {
    const QJsonObject root = document->object();
    for (auto folder = root.begin(); folder != root.end(); ++folder) {
      if (folder.key() == QLatin1String(kFormerOutputsKey)) {
        if (!folder.value().isArray()) return {};
        const QJsonArray records = folder.value().toArray();
        for (const QJsonValue record : records) {
          if (!record.isObject()) return {};
          stored.formerOutputs.push_back(identityOf(record.toObject(), QStringLiteral("output")));
        }
        continue;
      }
      if (!folder.value().isObject()) return {};
      HotFolderProcessedMap inner;
      const QJsonObject files = folder.value().toObject();
      for (auto entry = files.begin(); entry != files.end(); ++entry) {
        if (!entry.value().isObject()) return {};
        const QJsonObject fields = entry.value().toObject();
        HotFolderProcessedEntry value{JsonForms::requireInteger(fields, QStringLiteral("sizeBytes")),
                                      JsonForms::requireDouble(fields, QStringLiteral("modificationDate")),
                                      std::nullopt};
        if (const std::optional<QString> output =
                JsonForms::optionalString(fields, QStringLiteral("output"))) {
          value.output = {*output, identityOf(fields, QStringLiteral("output"))};
        }
        inner.insert(entry.key(), value);
      }
      stored.folders.emplace_back(folder.key(), std::move(inner));
    }
  } catch (const JsonForms::DecodingError&) {
    return {};
  }
  return stored;
}

void write(const Stored& stored) {
  JsonValue root = JsonValue::object();
  for (const auto& [folderID, files] : stored.folders) {
    JsonValue inner = JsonValue::object();
    for (auto entry = files.begin(); entry != files.end(); ++entry) {
      JsonValue fields = JsonValue::object()
                             .set("sizeBytes", JsonForms::integer(entry->sizeBytes))
                             .set("modificationDate", entry->modificationDate);
      if (entry->output) {
        fields.set("output", JsonForms::string(entry->output->name));
        setIdentity(fields, "output", entry->output->identity);
      }
      inner.set(entry.key().toStdString(), std::move(fields));
    }
    root.set(folderID.toStdString(), std::move(inner));
  }
  if (!stored.formerOutputs.empty()) {
    JsonValue records = JsonValue::array();
    for (const Identity& identity : stored.formerOutputs) {
      JsonValue record = JsonValue::object();
      records.push(std::move(setIdentity(record, "output", identity)));
    }
    root.set(kFormerOutputsKey, std::move(records));
  }
  JSONFileStore::save(root, file());
}

auto find(Stored& stored, const QString& hotFolderID) {
  return std::find_if(stored.folders.begin(), stored.folders.end(),
                      [&](const auto& pair) { return pair.first == hotFolderID; });
}

std::set<Identity> outputsOf(const HotFolderProcessedMap& files) {
  std::set<Identity> identities;
  for (const HotFolderProcessedEntry& entry : files) {
    if (entry.output) identities.insert(entry.output->identity);
  }
  return identities;
}

// Keeps the outputs that `before` named and `after` no longer does.
void keepFormerOutputs(Stored& stored, const HotFolderProcessedMap& before,
                       const HotFolderProcessedMap& after) {
  const std::set<Identity> still = outputsOf(after);
  for (const Identity& identity : outputsOf(before)) {
    if (still.count(identity)) continue;
    std::erase(stored.formerOutputs, identity);
    stored.formerOutputs.push_back(identity);
  }
  if (stored.formerOutputs.size() > formerOutputsKept)
    stored.formerOutputs.erase(stored.formerOutputs.begin(),
                               stored.formerOutputs.end() - std::ptrdiff_t(formerOutputsKept));
}

}  // namespace

QString nameKey(const std::string& name) {
  QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
  QString text = utf8(QByteArrayView(name));
  if (!utf8.hasError()) return text;
  return QLatin1Char('/') + QString::fromLatin1(QByteArray::fromStdString(name).toPercentEncoding());
}

std::string fileNameOf(const QString& key) {
  if (key.startsWith(QLatin1Char('/')))
    return QByteArray::fromPercentEncoding(key.mid(1).toLatin1()).toStdString();
  return key.toStdString();
}

HotFolderProcessedMap folderState(const QString& hotFolderID) {
  std::lock_guard lock(storeLock());
  Stored stored = read();
  const auto it = find(stored, hotFolderID);
  return it == stored.folders.end() ? HotFolderProcessedMap() : it->second;
}

void update(const QString& hotFolderID, const std::function<void(HotFolderProcessedMap&)>& mutate) {
  std::lock_guard lock(storeLock());
  Stored stored = read();
  auto it = find(stored, hotFolderID);
  if (it == stored.folders.end())
    it = stored.folders.insert(stored.folders.end(), {hotFolderID, HotFolderProcessedMap()});
  const HotFolderProcessedMap before = it->second;
  mutate(it->second);
  keepFormerOutputs(stored, before, it->second);
  write(stored);
}

std::set<Identity> outputs() {
  std::lock_guard lock(storeLock());
  const Stored stored = read();
  std::set<Identity> identities(stored.formerOutputs.begin(), stored.formerOutputs.end());
  for (const auto& [folderID, files] : stored.folders) identities.merge(outputsOf(files));
  return identities;
}

void remove(const QString& hotFolderID) {
  std::lock_guard lock(storeLock());
  Stored stored = read();
  const auto it = find(stored, hotFolderID);
  if (it != stored.folders.end()) {
    keepFormerOutputs(stored, it->second, {});
    stored.folders.erase(it);
  }
  write(stored);
}

void pruneProcessedState(const QString& hotFolderID, const QStringList& staleNames) {
  update(hotFolderID, [&](HotFolderProcessedMap& files) {
    for (const QString& name : staleNames) files.remove(name);
  });
}

}  // namespace quillane::HotFolderProcessedStore

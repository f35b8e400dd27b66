#include "hotfolders/HotFolderProcessedStore.h"

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

// Outer map in file order, so that a rewrite keeps the other folders where they stood.
using OuterMap = std::vector<std::pair<QString, HotFolderProcessedMap>>;

std::mutex& storeLock() {
  static std::mutex lock;
  return lock;
}

QString file() { return QString::fromLatin1(fileName); }

// Any defect anywhere makes the whole file read as empty.
OuterMap read() {
  const std::optional<QJsonDocument> document = JSONFileStore::load(file());
  if (!document || !document->isObject()) return {};
  OuterMap outer;
  try {
    const QJsonObject root = document->object();
    for (auto folder = root.begin(); folder != root.end(); ++folder) {
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
          value.output = {*output,
                          {uint64_t(JsonForms::requireInteger(fields, QStringLiteral("outputDevice"))),
                           uint64_t(JsonForms::requireInteger(fields, QStringLiteral("outputInode"))),
                           JsonForms::requireInteger(fields, QStringLiteral("outputSizeBytes")),
                           JsonForms::requireDouble(fields, QStringLiteral("outputModificationDate"))}};
        }
        inner.insert(entry.key(), value);
      }
      outer.emplace_back(folder.key(), std::move(inner));
    }
  } catch (const JsonForms::DecodingError&) {
    return {};
  }
  return outer;
}

void write(const OuterMap& outer) {
  JsonValue root = JsonValue::object();
  for (const auto& [folderID, files] : outer) {
    JsonValue inner = JsonValue::object();
    for (auto entry = files.begin(); entry != files.end(); ++entry) {
      JsonValue fields = JsonValue::object()
                             .set("sizeBytes", JsonForms::integer(entry->sizeBytes))
                             .set("modificationDate", entry->modificationDate);
      if (entry->output) {
        fields.set("output", JsonForms::string(entry->output->name))
            .set("outputDevice", JsonForms::integer(qint64(std::get<0>(entry->output->identity))))
            .set("outputInode", JsonForms::integer(qint64(std::get<1>(entry->output->identity))))
            .set("outputSizeBytes", JsonForms::integer(std::get<2>(entry->output->identity)))
            .set("outputModificationDate", std::get<3>(entry->output->identity));
      }
      inner.set(entry.key().toStdString(), std::move(fields));
    }
    root.set(folderID.toStdString(), std::move(inner));
  }
  JSONFileStore::save(root, file());
}

OuterMap::iterator find(OuterMap& outer, const QString& hotFolderID) {
  return std::find_if(outer.begin(), outer.end(),
                      [&](const auto& pair) { return pair.first == hotFolderID; });
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
  OuterMap outer = read();
  const auto it = find(outer, hotFolderID);
  return it == outer.end() ? HotFolderProcessedMap() : it->second;
}

void update(const QString& hotFolderID, const std::function<void(HotFolderProcessedMap&)>& mutate) {
  std::lock_guard lock(storeLock());
  OuterMap outer = read();
  auto it = find(outer, hotFolderID);
  if (it == outer.end()) it = outer.insert(outer.end(), {hotFolderID, HotFolderProcessedMap()});
  mutate(it->second);
  write(outer);
}

std::set<HotFolderProcessedEntry::Identity> outputs() {
  std::lock_guard lock(storeLock());
  std::set<HotFolderProcessedEntry::Identity> identities;
  for (const auto& [folderID, files] : read()) {
    for (const HotFolderProcessedEntry& entry : files) {
      if (entry.output) identities.insert(entry.output->identity);
    }
  }
  return identities;
}

void remove(const QString& hotFolderID) {
  std::lock_guard lock(storeLock());
  OuterMap outer = read();
  const auto it = find(outer, hotFolderID);
  if (it != outer.end()) outer.erase(it);
  write(outer);
}

void pruneProcessedState(const QString& hotFolderID, const QStringList& staleNames) {
  update(hotFolderID, [&](HotFolderProcessedMap& files) {
    for (const QString& name : staleNames) files.remove(name);
  });
}

}  // namespace quillane::HotFolderProcessedStore

#include "hotfolders/HotFolder.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

#include "engine/Localization.h"
#include "records/JSONFileStore.h"
#include "records/JsonForms.h"

namespace quillane {

QString HotFolder::idText() const { return JsonForms::uuidText(id); }

namespace HotFolders {

JsonValue toJson(const HotFolder& folder) {
  JsonValue object = JsonValue::object();
  object.set("id", JsonForms::uuid(folder.id));
  object.set("name", JsonForms::string(folder.name));
  object.set("sourceFolder", JsonForms::fileURL(folder.sourceFolder));
  object.set("destinationFolder", JsonForms::fileURL(folder.destinationFolder));
  if (folder.profileName) object.set("profileName", JsonForms::string(*folder.profileName));
  if (folder.format) object.set("format", JsonForms::format(*folder.format));
  if (folder.quality) object.set("quality", *folder.quality);
  object.set("isEnabled", folder.isEnabled);
  return object;
}

HotFolder fromJson(const QJsonObject& object) {
  HotFolder folder;
  folder.id = JsonForms::requireUUID(object, QStringLiteral("id"));
  folder.name = JsonForms::requireString(object, QStringLiteral("name"));
  folder.sourceFolder = JsonForms::requireFileURL(object, QStringLiteral("sourceFolder"));
  folder.destinationFolder = JsonForms::requireFileURL(object, QStringLiteral("destinationFolder"));
  folder.profileName = JsonForms::optionalString(object, QStringLiteral("profileName"));
  const QJsonValue format = object.value(QStringLiteral("format"));
  if (!format.isUndefined() && !format.isNull())
    folder.format = JsonForms::requireFormat(object, QStringLiteral("format"));
  const QJsonValue quality = object.value(QStringLiteral("quality"));
  if (!quality.isUndefined() && !quality.isNull())
    folder.quality = JsonForms::requireDouble(object, QStringLiteral("quality"));
  const std::optional<bool> enabled = JsonForms::optionalBool(object, QStringLiteral("isEnabled"));
  if (!enabled) throw JsonForms::DecodingError("isEnabled is required");
  folder.isEnabled = *enabled;
  return folder;
}

QString resolvedFolder(const QString& path) {
  const QString canonical = QFileInfo(path).canonicalFilePath();
  return canonical.isEmpty() ? QDir::cleanPath(QDir(path).absolutePath()) : canonical;
}

bool isSameFolder(const QString& a, const QString& b) { return resolvedFolder(a) == resolvedFolder(b); }

std::map<QUuid, QString> refusals(const HotFolderList& enabled) {
  std::map<QUuid, QString> refused;
  for (const HotFolder& folder : enabled) {
    if (isSameFolder(folder.sourceFolder, folder.destinationFolder)) {
      refused[folder.id] = QString::fromStdString(
          Localization::text("settings.hotFolders.sameFolderWarning",
                             "La source et la destination doivent être des dossiers différents."));
    }
  }
  return refused;
}

HotFolderList load() { return JSONFileStore::loadList(QString::fromLatin1(fileName), &fromJson); }

void save(const HotFolderList& folders) {
  JSONFileStore::save(JsonForms::encodeArray(folders, &toJson), QString::fromLatin1(fileName));
}

}  // namespace HotFolders
}  // namespace quillane

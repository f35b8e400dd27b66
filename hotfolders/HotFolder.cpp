#include "hotfolders/HotFolder.h"

#include <sys/stat.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QSet>
#include <set>

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
  JsonForms::setSizeOptions(object, folder.sizing);
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
  folder.sizing = JsonForms::sizeOptions(object);
  return folder;
}

QString resolvedFolder(const QString& path) {
  const QString canonical = QFileInfo(path).canonicalFilePath();
  return canonical.isEmpty() ? QDir::cleanPath(QDir(path).absolutePath()) : canonical;
}

bool isSameFolder(const QString& a, const QString& b) { return resolvedFolder(a) == resolvedFolder(b); }

namespace {

using Identity = std::pair<uint64_t, uint64_t>;  // device, inode

std::optional<Identity> identityOf(const QString& path) {
  struct stat st {};
  if (::stat(QFile::encodeName(path).constData(), &st) != 0) return std::nullopt;
  return Identity{uint64_t(st.st_dev), uint64_t(st.st_ino)};
}

// The folder and every folder above it, by identity: the path's links resolved where it
// exists, the part that does not exist yet left out.
std::set<Identity> identitiesUpFrom(const QString& path) {
  QString existing = QDir::cleanPath(QDir(path).absolutePath());
  while (!QFileInfo::exists(existing) && existing != QStringLiteral("/"))
    existing = QFileInfo(existing).path();
  QString folder = QFileInfo(existing).canonicalFilePath();
  std::set<Identity> identities;
  while (!folder.isEmpty()) {
    if (const std::optional<Identity> identity = identityOf(folder)) identities.insert(*identity);
    if (folder == QStringLiteral("/")) break;
    folder = QFileInfo(folder).path();
  }
  return identities;
}

}  // namespace

std::map<QUuid, QString> refusals(const HotFolderList& enabled) {
  std::map<QUuid, QString> refused;
  std::vector<std::optional<Identity>> sources;
  std::vector<std::set<Identity>> destinations;
  for (const HotFolder& folder : enabled) {
    sources.push_back(identityOf(resolvedFolder(folder.sourceFolder)));
    destinations.push_back(identitiesUpFrom(folder.destinationFolder));
  }
  for (size_t i = 0; i < enabled.size(); ++i) {
    if (isSameFolder(enabled[i].sourceFolder, enabled[i].destinationFolder) ||
        (sources[i] && identityOf(enabled[i].destinationFolder) == sources[i])) {
      refused[enabled[i].id] = QString::fromStdString(
          Localization::text("settings.hotFolders.sameFolderWarning",
                             "La source et la destination doivent être des dossiers différents."));
    }
  }
  // A destination in or under another folder's source: the one would compress the other's
  // outputs, and each again, for ever where the two point at each other. Both stay off.
  auto loopText = [](const HotFolder& other) {
    return QString::fromStdString(Localization::format(
        "settings.hotFolders.loopFormat",
        "Refusé : ce dossier et « %@ » forment une boucle, la destination de l'un étant dans le dossier "
        "surveillé de l'autre.",
        {other.name.toStdString()}));
  };
  for (size_t i = 0; i < enabled.size(); ++i) {
    for (size_t j = 0; j < enabled.size(); ++j) {
      if (i == j || !sources[j] || !destinations[i].count(*sources[j])) continue;
      refused.try_emplace(enabled[i].id, loopText(enabled[j]));
      refused.try_emplace(enabled[j].id, loopText(enabled[i]));
    }
  }
  return refused;
}

HotFolderList load() {
  HotFolderList folders = JSONFileStore::loadList(QString::fromLatin1(fileName), &fromJson);
  // A list edited by hand may repeat an entry's id in a copy since changed. Each folder's watcher,
  // state and memory go by its id, so the copy would stop the original: it gets an id of its
  // own, made from the entry's place, so that it is the same at each load until the list is saved.
  QSet<QUuid> seen;
  for (size_t i = 0; i < folders.size(); ++i) {
    if (seen.contains(folders[i].id)) folders[i].id = QUuid::createUuidV5(folders[i].id, QString::number(i));
    seen.insert(folders[i].id);
  }
  return folders;
}

void save(const HotFolderList& folders) {
  JSONFileStore::save(JsonForms::encodeArray(folders, &toJson), QString::fromLatin1(fileName));
}

}  // namespace HotFolders
}  // namespace quillane

#include "records/ExportProfile.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

#include "records/JSONFileStore.h"
#include "records/JsonForms.h"

namespace quillane::ExportProfiles {

namespace {

bool sameName(const QString& a, const QString& b) { return QString::compare(a, b, Qt::CaseInsensitive) == 0; }

}  // namespace

void upsert(ExportProfileList& profiles, const ExportProfile& profile) {
  const QString trimmed = profile.name.trimmed();
  auto byID =
      std::find_if(profiles.begin(), profiles.end(), [&](const auto& p) { return p.id == profile.id; });
  if (byID != profiles.end()) {
    *byID = profile;
    std::erase_if(profiles, [&](const auto& p) { return p.id != profile.id && sameName(p.name, trimmed); });
  } else {
    auto byName = std::find_if(profiles.begin(), profiles.end(),
                               [&](const auto& p) { return sameName(p.name, trimmed); });
    if (byName != profiles.end()) {
      *byName = profile;
    } else {
      profiles.push_back(profile);
    }
  }
  if (profile.isDefault) clearDefault(profiles, profile.id);
}

void clearDefault(ExportProfileList& profiles, const QUuid& exceptID) {
  for (auto& p : profiles) {
    if (p.id != exceptID && p.isDefault) p.isDefault = false;
  }
}

void remove(ExportProfileList& profiles, const ExportProfile& profile) {
  std::erase_if(profiles, [&](const auto& p) { return p.id == profile.id; });
}

const ExportProfile* find(const ExportProfileList& profiles, const QString& name) {
  for (const auto& p : profiles) {
    if (sameName(p.name, name)) return &p;
  }
  return nullptr;
}

const ExportProfile* findDefault(const ExportProfileList& profiles) {
  for (const auto& p : profiles) {
    if (p.isDefault) return &p;
  }
  return nullptr;
}

JsonValue toJson(const ExportProfile& profile) {
  JsonValue object = JsonValue::object();
  object.set("id", JsonForms::uuid(profile.id));
  object.set("name", JsonForms::string(profile.name));
  object.set("format", JsonForms::format(profile.format));
  object.set("quality", profile.quality);
  if (profile.destinationFolder)
    object.set("destinationFolder", JsonForms::fileURL(*profile.destinationFolder));
  object.set("isDefault", profile.isDefault);
  JsonForms::setSizeOptions(object, profile.sizing);
  return object;
}

JsonValue toJson(const ExportProfileList& profiles) { return JsonForms::encodeArray(profiles, &toJson); }

ExportProfile fromJson(const QJsonObject& object) {
  ExportProfile profile;
  profile.id = JsonForms::requireUUID(object, QStringLiteral("id"));
  profile.name = JsonForms::requireString(object, QStringLiteral("name"));
  profile.format = JsonForms::requireFormat(object, QStringLiteral("format"));
  profile.quality = JsonForms::requireDouble(object, QStringLiteral("quality"));
  profile.destinationFolder = JsonForms::optionalFileURL(object, QStringLiteral("destinationFolder"));
  profile.isDefault = JsonForms::optionalBool(object, QStringLiteral("isDefault")).value_or(false);
  profile.sizing = JsonForms::sizeOptions(object);
  return profile;
}

std::optional<ExportProfileList> listFromJson(const QJsonDocument& document) {
  return JsonForms::decodeArray<ExportProfile>(document, &fromJson);
}

ExportProfileList load() { return JSONFileStore::loadList(QString::fromLatin1(fileName), &fromJson); }

void save(const ExportProfileList& profiles) {
  JSONFileStore::save(toJson(profiles), QString::fromLatin1(fileName));
}

}  // namespace quillane::ExportProfiles

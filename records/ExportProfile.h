#pragma once
// ExportProfile: a named preset of format, quality and, if wanted, a destination folder,
// stored as one list in exportProfiles.json. The list belongs to BatchViewModel, which
// keeps it with the operations of ExportProfiles below (GUI thread) and saves it after
// each change; ExportProfileResolver reads the file on its own from any thread.
//
// Invariants kept by upsert() and clearDefault(): at most one profile is the default, and
// no two names are equal ignoring case (the incoming name compared trimmed).

#include <QString>
#include <QUuid>
#include <optional>
#include <vector>

#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "engine/Json.h"

class QJsonDocument;
class QJsonObject;

namespace quillane {

struct ExportProfile {
  QUuid id;
  QString name;
  ImageFormat format = ImageFormat::jpeg;
  double quality = 75.0;                     // 1 to 100, perceptual
  std::optional<QString> destinationFolder;  // a local path; a file URL in JSON
  bool isDefault = false;
  CompressionOptions sizing;  // fit, byte budget, skip larger; off unless the file has the keys

  bool operator==(const ExportProfile&) const = default;
};

using ExportProfileList = std::vector<ExportProfile>;

namespace ExportProfiles {

inline constexpr char fileName[] = "exportProfiles.json";

// Replaces the profile of the same id in place and removes every other profile whose name
// equals the trimmed incoming name (so a rename onto an existing name removes that one);
// else replaces the first profile of that name, which takes the incoming id; else appends.
// A default profile then clears every other default. The name is stored as given.
void upsert(ExportProfileList& profiles, const ExportProfile& profile);

// Every profile other than `exceptID` loses its default flag; none gains it.
void clearDefault(ExportProfileList& profiles, const QUuid& exceptID);

// Removes every profile with the id of `profile`.
void remove(ExportProfileList& profiles, const ExportProfile& profile);

// The first profile whose name equals `name` ignoring case (not trimmed); null if none.
const ExportProfile* find(const ExportProfileList& profiles, const QString& name);
// The first profile marked default; null if none.
const ExportProfile* findDefault(const ExportProfileList& profiles);

// JSON coding. fromJson() throws JsonForms::DecodingError: id, name, format and quality are
// required; destinationFolder, isDefault, maxWidth, maxHeight, maxBytes (whole numbers, 0 or
// missing: off) and skipLarger may be missing, and are written only when set.
JsonValue toJson(const ExportProfile& profile);
JsonValue toJson(const ExportProfileList& profiles);
ExportProfile fromJson(const QJsonObject& object);
// Nothing when the document is not a list of valid profiles: one bad entry fails them all.
std::optional<ExportProfileList> listFromJson(const QJsonDocument& document);

// exportProfiles.json in the store's folder: empty when missing or damaged. Any thread.
ExportProfileList load();
// Rewrites exportProfiles.json; silent on failure.
void save(const ExportProfileList& profiles);

}  // namespace ExportProfiles
}  // namespace quillane

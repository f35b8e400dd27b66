#include "records/ExportProfileResolver.h"

#include "engine/Localization.h"
#include "records/ExportProfile.h"

namespace quillane {

ProfileNotFoundError::ProfileNotFoundError(QString name)
    : QuillaneError("no profile named " + name.toStdString()), name_(std::move(name)) {}

std::string ProfileNotFoundError::description() const {
  return Localization::format("error.profileNotFoundFormat", "Profil introuvable : %@",
                              {name_.toStdString()});
}

namespace ExportProfileResolver {

Resolved resolve(const std::optional<QString>& profileName, std::optional<double> explicitQuality,
                 std::optional<ImageFormat> explicitFormat,
                 const std::optional<QString>& explicitOutputDirectory) {
  Resolved resolved{explicitFormat.value_or(ImageFormat::jpeg),
                    explicitQuality.value_or(75.0),
                    explicitOutputDirectory,
                    {}};
  const ExportProfileList profiles = ExportProfiles::load();
  const ExportProfile* profile = nullptr;
  if (profileName) {
    profile = ExportProfiles::find(profiles, *profileName);
    if (!profile) throw ProfileNotFoundError(*profileName);
  } else {
    profile = ExportProfiles::findDefault(profiles);
    if (!profile) return resolved;
  }
  if (!explicitFormat) resolved.format = profile->format;
  if (!explicitQuality) resolved.quality = profile->quality;
  if (!explicitOutputDirectory) resolved.outputDirectory = profile->destinationFolder;
  resolved.sizing = profile->sizing;
  return resolved;
}

CompressionOptions merged(const CompressionOptions& given, const CompressionOptions& profile) {
  return {given.maxWidth > 0 ? given.maxWidth : profile.maxWidth,
          given.maxHeight > 0 ? given.maxHeight : profile.maxHeight,
          given.maxBytes > 0 ? given.maxBytes : profile.maxBytes, given.skipLarger || profile.skipLarger};
}

}  // namespace ExportProfileResolver
}  // namespace quillane

#pragma once
// ExportProfileResolver: the settings of a one-shot compression (hot folders, command-line
// tool, D-Bus intent) from explicit values, a named profile or the default profile. It reads
// exportProfiles.json itself and never touches the batch model, so it works on any thread;
// it sees the latest saved state.

#include <QString>
#include <optional>

#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"

namespace quillane {

// No profile has the requested name. description(): "error.profileNotFoundFormat".
class ProfileNotFoundError : public QuillaneError {
 public:
  explicit ProfileNotFoundError(QString name);
  const QString& name() const { return name_; }
  std::string description() const override;

 private:
  QString name_;
};

namespace ExportProfileResolver {

struct Resolved {
  ImageFormat format = ImageFormat::jpeg;
  double quality = 75.0;
  std::optional<QString> outputDirectory;  // a local path
  CompressionOptions sizing;               // the profile's size options
};

// Starts from the explicit values (jpeg and 75 when absent). With `profileName`, the first
// profile of that name ignoring case (the name is not trimmed) fills what was not given
// explicitly, or ProfileNotFoundError is thrown; without one, the default profile does, if
// any. A missing or damaged file counts as no profiles. Any thread.
Resolved resolve(const std::optional<QString>& profileName, std::optional<double> explicitQuality,
                 std::optional<ImageFormat> explicitFormat,
                 const std::optional<QString>& explicitOutputDirectory);

// Each size option `given` sets, else the profile's: a profile's fit or budget stands unless
// replaced, and skipLarger holds when either asks for it.
CompressionOptions merged(const CompressionOptions& given, const CompressionOptions& profile);

}  // namespace ExportProfileResolver
}  // namespace quillane

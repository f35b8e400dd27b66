#pragma once
// CompressImagesIntent: the desktop's one-shot compress action, behind the D-Bus method
// com.quillane.Quillane.Compress and the "Compress with Quillane" desktop action. It
// compresses files one after another into one folder and answers with the paths of the
// written files. Unlike the script command it fails as a whole on the first bad file; the
// outputs written before it stay in the folder.
//
// Runs synchronously on the calling thread, any thread, and never touches the batch model.

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <optional>
#include <string>

#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"

namespace quillane {

// The format parameter: "profileOrDefault" (no explicit format) or one of the six formats.
enum class ImageFormatAppEnum { profileOrDefault, png, jpeg, heic, avif, webp, jxl };

namespace ImageFormatAppEnums {
// The case of a raw value ("profileOrDefault", "png", ... exactly as written); nothing else.
std::optional<ImageFormatAppEnum> fromRawValue(const QString& rawValue);
// The explicit format a case stands for; nothing for profileOrDefault.
std::optional<ImageFormat> imageFormat(ImageFormatAppEnum value);
}  // namespace ImageFormatAppEnums

// "intents.error.emptyFileList"
class EmptyFileListError : public QuillaneError {
 public:
  std::string description() const override;
};

// "intents.error.missingOutputDirectory"
class MissingOutputDirectoryError : public QuillaneError {
 public:
  std::string description() const override;
};

// "intents.error.compressionFailedFormat" with the input's file name and the reason, or the
// "intents.error.unknownReason" text when the pipeline gave none.
class CompressionFailedError : public QuillaneError {
 public:
  CompressionFailedError(std::string path, std::optional<std::string> reason)
      : QuillaneError(path), path_(std::move(path)), reason_(std::move(reason)) {}
  std::string description() const override;

 private:
  std::string path_;
  std::optional<std::string> reason_;
};

// A parameter outside its range (quality 101) or of an unknown value (format "gif"). The
// description names the parameter and the value.
class InvalidIntentArgumentError : public QuillaneError {
 public:
  InvalidIntentArgumentError(std::string argument, std::string value)
      : QuillaneError(argument + "=" + value), argument_(std::move(argument)), value_(std::move(value)) {}
  const std::string& argument() const { return argument_; }
  const std::string& value() const { return value_; }
  std::string description() const override;

 private:
  std::string argument_;
  std::string value_;
};

// A path argument that is not absolute (nor a file:// URL): it would name a file relative to
// wherever the service happens to run. The description names the argument and the value.
class RelativePathArgumentError : public InvalidIntentArgumentError {
 public:
  using InvalidIntentArgumentError::InvalidIntentArgumentError;
  std::string description() const override;
};

// The caller gave up (left the bus) before the call had finished.
class CallerGoneError : public QuillaneError {
 public:
  std::string description() const override;
};

struct CompressImagesIntent {
  QStringList files;  // local paths, or file:// URLs
  ImageFormatAppEnum format = ImageFormatAppEnum::profileOrDefault;
  std::optional<int> quality;  // 1 to 100
  std::optional<QString> profileName;
  std::optional<QString> outputFolder;  // a local path or a file:// URL
  // Fit, byte budget, skip larger: off by default. A file kept under skipLarger is written
  // nowhere and left out of the returned paths.
  CompressionOptions options;

  // The parameters in their wire form: a format's raw value, quality 0 for none, empty
  // strings for none. Throws InvalidIntentArgumentError for an unknown format or a quality
  // outside 0 to 100, and RelativePathArgumentError for a file or folder that is neither an
  // absolute path nor a file:// URL of one.
  static CompressImagesIntent fromArguments(const QStringList& files, const QString& format, int quality,
                                            const QString& profileName, const QString& outputFolder);

  // CompressWithOptions: the named parameters of fromArguments ("format", "quality",
  // "profile", "outputFolder") and the size options ("maxWidth", "maxHeight", "maxBytes",
  // "skipLarger"), each optional. Throws as fromArguments does, and InvalidIntentArgumentError
  // for an unknown key or a value of the wrong kind.
  static CompressImagesIntent fromOptions(const QStringList& files, const QVariantMap& options);

  // Resolves the settings (explicit values, then the named or default profile), makes the
  // output folder with its parents, and compresses the files in order with names kept apart
  // within this call, never replacing one of `files` (such a name gets the next number);
  // returns the written files' paths in the order of `files` (the file:// URL of a path that
  // is not UTF-8, which no bus string can carry). With no folder given and none
  // in the profile, each result is written beside its source, under a name that no file
  // there has yet ("photo.png" to PNG gives "photo-2.png", or "photo-3.png" when that exists).
  // Throws, before touching anything: EmptyFileListError, ProfileNotFoundError, FileError
  // (the folder can't be made); and on the first file that fails, CompressionFailedError.
  // `callerGone`, when given, is asked first and before each file; true ends the call there
  // with CallerGoneError.
  QStringList perform(const std::function<bool()>& callerGone = {}) const;
};

// A path, or a file URL (isURLText, localFileOfURL), as the file system's bytes: a URL's escapes are undone
// byte by byte, so that a name that is not UTF-8 ("caf%E9.png", the only way a bus string can carry it) names
// its file (localFilePath). Empty for a URL of another scheme or machine.
std::string localPathBytes(const QString& pathOrURL);

}  // namespace quillane

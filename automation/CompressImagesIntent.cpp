#include "automation/CompressImagesIntent.h"

#include <QDir>
#include <QFile>
#include <QUrl>
#include <cerrno>
#include <filesystem>
#include <map>
#include <system_error>
#include <vector>

#include "automation/CompressScriptCommand.h"
#include "batch/ExportFilenameAllocator.h"
#include "batch/ImportedImage.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/ImageCompressor.h"
#include "engine/Localization.h"
#include "records/ExportProfileResolver.h"

namespace quillane {

namespace ImageFormatAppEnums {

std::optional<ImageFormatAppEnum> fromRawValue(const QString& rawValue) {
  if (rawValue == QLatin1String("profileOrDefault")) return ImageFormatAppEnum::profileOrDefault;
  const auto format = ImageFormats::fromRawValue(rawValue.toStdString());
  if (!format) return std::nullopt;
  switch (*format) {
    case ImageFormat::png:
      return ImageFormatAppEnum::png;
    case ImageFormat::jpeg:
      return ImageFormatAppEnum::jpeg;
    case ImageFormat::heic:
      return ImageFormatAppEnum::heic;
    case ImageFormat::avif:
      return ImageFormatAppEnum::avif;
    case ImageFormat::webp:
      return ImageFormatAppEnum::webp;
    case ImageFormat::jxl:
      return ImageFormatAppEnum::jxl;
  }
  return std::nullopt;
}

std::optional<ImageFormat> imageFormat(ImageFormatAppEnum value) {
  switch (value) {
    case ImageFormatAppEnum::profileOrDefault:
      return std::nullopt;
    case ImageFormatAppEnum::png:
      return ImageFormat::png;
    case ImageFormatAppEnum::jpeg:
      return ImageFormat::jpeg;
    case ImageFormatAppEnum::heic:
      return ImageFormat::heic;
    case ImageFormatAppEnum::avif:
      return ImageFormat::avif;
    case ImageFormatAppEnum::webp:
      return ImageFormat::webp;
    case ImageFormatAppEnum::jxl:
      return ImageFormat::jxl;
  }
  return std::nullopt;
}

}  // namespace ImageFormatAppEnums

std::string EmptyFileListError::description() const {
  return Localization::text("intents.error.emptyFileList", "Choisissez au moins une image à compresser.");
}

std::string MissingOutputDirectoryError::description() const {
  return Localization::text(
      "intents.error.missingOutputDirectory",
      "Dossier de destination manquant : renseignez-le, ou utilisez un profil qui en a un.");
}

std::string CompressionFailedError::description() const {
  const std::string reason =
      reason_ ? *reason_ : Localization::text("intents.error.unknownReason", "erreur inconnue");
  return Localization::format("intents.error.compressionFailedFormat",
                              "Échec de la compression de %1$@ : %2$@", {path_, reason});
}

std::string InvalidIntentArgumentError::description() const {
  return Localization::format("intents.error.invalidArgumentFormat", "Valeur invalide pour %1$@ : %2$@",
                              {argument_, value_});
}

std::string RelativePathArgumentError::description() const {
  return Localization::format("intents.error.relativePathFormat",
                              "Chemin relatif refusé pour %1$@ : %2$@ (un chemin absolu est attendu)",
                              {argument(), value()});
}

std::string CallerGoneError::description() const {
  return Localization::text("intents.error.callerGone", "L'appelant est parti : le reste est abandonné.");
}

namespace {

// A path argument's file as a path: a file URL as the file it names, read as the launch reads
// one.
QString localPath(const QString& pathOrURL) {
  return QFile::decodeName(QByteArray::fromStdString(localPathBytes(pathOrURL)));
}

// Refuses a path argument that is not absolute once a file URL is read, and a URL of another
// scheme or machine, which names no file here.
void requireAbsolute(const char* argument, const QString& pathOrURL) {
  if (isURLText(pathOrURL.toStdString()) && !localFileOfURL(pathOrURL.toUtf8()))
    throw InvalidIntentArgumentError(argument, pathOrURL.toStdString());
  if (!QDir::isAbsolutePath(localPath(pathOrURL)))
    throw RelativePathArgumentError(argument, pathOrURL.toStdString());
}

std::optional<QString> noneIfEmpty(const QString& value) {
  if (value.isEmpty()) return std::nullopt;
  return value;
}

// A written file as a bus string can carry it: its path, or the file:// URL of its bytes when
// they are not UTF-8.
QString pathOrURLText(const std::string& path) {
  const QByteArray bytes = QByteArray::fromStdString(path);
  QString text = QFile::decodeName(bytes);
  if (QFile::encodeName(text) == bytes) return text;
  return localFileURL(path).toString(QUrl::FullyEncoded);
}

void createFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error || !std::filesystem::is_directory(folder))
    throw FileError(folder, Localization::systemError(error ? error.value() : ENOTDIR));
}

}  // namespace

std::string localPathBytes(const QString& pathOrURL) {
  if (!isURLText(pathOrURL.toStdString())) return QFile::encodeName(pathOrURL).toStdString();
  const std::optional<QUrl> file = localFileOfURL(pathOrURL.toUtf8());
  return file ? localFilePath(*file) : std::string();
}

CompressImagesIntent CompressImagesIntent::fromArguments(const QStringList& files, const QString& format,
                                                         int quality, const QString& profileName,
                                                         const QString& outputFolder) {
  CompressImagesIntent intent;
  intent.files = files;
  const auto formatCase = ImageFormatAppEnums::fromRawValue(format);
  if (!formatCase) throw InvalidIntentArgumentError("format", format.toStdString());
  intent.format = *formatCase;
  if (quality < 0 || quality > 100) throw InvalidIntentArgumentError("quality", std::to_string(quality));
  if (quality != 0) intent.quality = quality;
  intent.profileName = noneIfEmpty(profileName);
  intent.outputFolder = noneIfEmpty(outputFolder);
  for (const QString& file : files) requireAbsolute("files", file);
  if (intent.outputFolder) requireAbsolute("outputFolder", *intent.outputFolder);
  return intent;
}

CompressImagesIntent CompressImagesIntent::fromOptions(const QStringList& files, const QVariantMap& options) {
  static const QStringList known{"format",   "quality",   "profile",  "outputFolder",
                                 "maxWidth", "maxHeight", "maxBytes", "skipLarger"};
  for (auto it = options.begin(); it != options.end(); ++it)
    if (!known.contains(it.key())) throw InvalidIntentArgumentError("options", it.key().toStdString());
  const auto text = [&](const char* key) {
    const QVariant value = options.value(key);
    if (value.isValid() && value.typeId() != QMetaType::QString)
      throw InvalidIntentArgumentError(key, value.toString().toStdString());
    return value.toString();
  };
  int quality = 0;
  if (const QVariant value = options.value("quality"); value.isValid()) {
    bool ok = false;
    quality = value.toInt(&ok);
    if (!ok || value.typeId() == QMetaType::Bool || value.typeId() == QMetaType::QString)
      throw InvalidIntentArgumentError("quality", value.toString().toStdString());
  }
  const QString format = text("format");
  CompressImagesIntent intent =
      fromArguments(files, format.isEmpty() ? QStringLiteral("profileOrDefault") : format, quality,
                    text("profile"), text("outputFolder"));
  try {
    intent.options = CompressScriptCommand::compressionOptions(options);
  } catch (const ScriptCommandError& e) {
    throw InvalidIntentArgumentError("options", e.message());
  }
  return intent;
}

QStringList CompressImagesIntent::perform(const std::function<bool()>& callerGone) const {
  if (files.isEmpty()) throw EmptyFileListError();
  if (callerGone && callerGone()) throw CallerGoneError();
  if (quality && (*quality < 1 || *quality > 100))
    throw InvalidIntentArgumentError("quality", std::to_string(*quality));

  std::optional<double> explicitQuality;
  if (quality) explicitQuality = double(*quality);
  std::optional<QString> folderArgument;
  if (outputFolder) folderArgument = localPath(*outputFolder);
  const auto resolved = ExportProfileResolver::resolve(
      profileName, explicitQuality, ImageFormatAppEnums::imageFormat(format), folderArgument);
  // Without a folder (a fresh install has no profile), each result goes beside its source.
  const bool besideSources = !resolved.outputDirectory || resolved.outputDirectory->isEmpty();
  // A folder given as a URL keeps its bytes, also those that are not UTF-8.
  const std::string outputDirectory = besideSources ? std::string()
                                      : outputFolder
                                          ? localPathBytes(*outputFolder)
                                          : QFile::encodeName(*resolved.outputDirectory).toStdString();
  if (!besideSources) createFolder(outputDirectory);

  // Fresh for every call, one per folder written into: files of one call never take each
  // other's names, nor an input's.
  std::vector<std::string> inputs;
  for (const QString& file : files) inputs.push_back(localPathBytes(file));
  std::map<std::string, ExportFilenameAllocator> allocators;
  const std::string_view extension = ImageFormats::fileExtension(resolved.format);
  QStringList outputs;
  for (const std::string& path : inputs) {
    if (callerGone && callerGone()) throw CallerGoneError();
    const std::filesystem::path source = std::filesystem::absolute(path);
    // A folder is not entered: said so, as the window's import says it.
    std::error_code error;
    if (std::filesystem::is_directory(source, error)) {
      const std::filesystem::path named = source.has_filename() ? source : source.parent_path();
      throw CompressionFailedError(named.filename().string(), Localization::systemError(EISDIR));
    }
    const std::string folder = besideSources ? source.parent_path().string() : outputDirectory;
    auto allocator = allocators.try_emplace(folder, folder, inputs).first;
    // The name in bytes, so that one that is not UTF-8 keeps them.
    const std::string base = source.filename().stem().string();
    std::string name = allocator->second.filename(base, std::string(extension));
    // Beside the sources nothing is replaced: a name already taken on disk is passed over, a
    // link that leads nowhere too (the entry is the user's, whatever it points at).
    while (besideSources && std::filesystem::exists(
                                std::filesystem::symlink_status(std::filesystem::path(folder) / name, error)))
      name = allocator->second.filename(base, std::string(extension));
    const CompressionBudget::Claim claim = CompressionBudget::process().claim(
        CompressionCost::fileCostMB(path, resolved.format, resolved.quality));
    const ImageCompressionResult result =
        ImageCompressor::compress(path, folder, resolved.format, resolved.quality, name, false,
                                  ExportProfileResolver::merged(options, resolved.sizing));
    if (result.skipped) continue;
    if (!result.destination) throw CompressionFailedError(source.filename().string(), result.error);
    outputs.append(pathOrURLText(*result.destination));
  }
  return outputs;
}

}  // namespace quillane

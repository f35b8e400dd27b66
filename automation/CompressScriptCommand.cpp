#include "automation/CompressScriptCommand.h"

#include <QUrl>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

#include "batch/ExportFilenameAllocator.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "engine/Localization.h"
#include "records/ExportProfileResolver.h"

namespace quillane {

ScriptCommandError ScriptCommandError::noFiles() {
  return ScriptCommandError(Localization::text("appleScript.error.noFiles", "Aucun fichier à compresser."));
}

ScriptCommandError ScriptCommandError::invalidDirectParameter() {
  return ScriptCommandError(
      Localization::text("appleScript.error.invalidDirectParameter",
                         "Paramètre direct invalide : attendait un ou plusieurs chemins de fichiers."));
}

ScriptCommandError ScriptCommandError::missingOutputDirectory() {
  return ScriptCommandError(
      Localization::text("appleScript.error.missingOutputDirectory",
                         "Dossier de destination manquant : passez \"to\" ou un profil qui en a un."));
}

namespace CompressScriptCommand {
namespace {

bool isList(const QVariant& value) {
  const int type = value.typeId();
  return type == QMetaType::QVariantList || type == QMetaType::QStringList;
}

void collectPaths(const QVariant& value, QStringList& paths) {
  if (!value.isValid() || value.isNull()) throw ScriptCommandError::invalidDirectParameter();
  switch (value.typeId()) {
    case QMetaType::QUrl: {
      const QUrl u = value.toUrl();
      paths.append(u.isLocalFile() ? u.toLocalFile() : u.path());
      return;
    }
    case QMetaType::QString:
      paths.append(value.toString());
      return;
    default:
      break;
  }
  if (!isList(value)) throw ScriptCommandError::invalidDirectParameter();
  for (const QVariant& element : value.toList()) collectPaths(element, paths);
}

std::optional<ImageFormat> explicitFormat(const QVariantMap& arguments) {
  const QVariant value = arguments.value(CompressScriptCommand::formatArgument);
  if (value.typeId() != QMetaType::QString) return std::nullopt;
  return ImageFormats::fromRawValue(value.toString().toLower().toStdString());
}

std::optional<double> explicitQuality(const QVariantMap& arguments) {
  const QVariant value = arguments.value(CompressScriptCommand::qualityArgument);
  switch (value.typeId()) {
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
      return value.toDouble();
    default:
      return std::nullopt;  // a string, even one that reads as a number, is no quality
  }
}

std::optional<QString> profileName(const QVariantMap& arguments) {
  const QVariant value = arguments.value(CompressScriptCommand::profileArgument);
  if (value.typeId() != QMetaType::QString) return std::nullopt;
  return value.toString();
}

void createFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error || !std::filesystem::is_directory(folder))
    throw FileError(folder, error ? error.message() : std::strerror(ENOTDIR));
}

// The file URL's last component without its extension: "a/photo.tar.png" gives "photo.tar".
QString baseName(const QString& path) {
  return QString::fromStdString(std::filesystem::path(path.toStdString()).filename().stem().string());
}

}  // namespace

QStringList filePaths(const QVariant& value) {
  QStringList paths;
  collectPaths(value, paths);
  return paths;
}

std::optional<QString> url(const QVariant& value) {
  if (value.typeId() == QMetaType::QUrl) {
    const QUrl u = value.toUrl();
    if (u.isLocalFile()) return u.toLocalFile();
    return std::nullopt;
  }
  if (value.typeId() == QMetaType::QString) return value.toString();
  return std::nullopt;
}

std::string perform(const QVariant& directParameter, const QVariantMap& evaluatedArguments) {
  const QStringList paths = filePaths(directParameter);
  if (paths.isEmpty()) throw ScriptCommandError::noFiles();

  const auto resolved = ExportProfileResolver::resolve(profileName(evaluatedArguments),
                                                       explicitQuality(evaluatedArguments),
                                                       explicitFormat(evaluatedArguments),
                                                       url(evaluatedArguments.value(toArgument)));
  if (!resolved.outputDirectory || resolved.outputDirectory->isEmpty())
    throw ScriptCommandError::missingOutputDirectory();
  const std::string folder = resolved.outputDirectory->toStdString();
  createFolder(folder);

  // Fresh for every command: files of one command never take each other's names, while a
  // file already in the folder is replaced.
  ExportFilenameAllocator allocator;
  const QString extension = QString::fromUtf8(ImageFormats::fileExtension(resolved.format).data(),
                                              qsizetype(ImageFormats::fileExtension(resolved.format).size()));
  std::vector<ImageCompressionResult> results;
  results.reserve(size_t(paths.size()));
  for (const QString& path : paths) {
    const QString name = allocator.filename(baseName(path), extension);
    results.push_back(ImageCompressor::compress(path.toStdString(), folder, resolved.format, resolved.quality,
                                                name.toStdString()));
  }
  return ImageCompressor::jsonString(results);
}

Outcome performDefaultImplementation(const QVariant& directParameter, const QVariantMap& evaluatedArguments) {
  Outcome outcome;
  try {
    outcome.json = perform(directParameter, evaluatedArguments);
  } catch (const QuillaneError& error) {
    outcome.errorNumber = commandErrorNumber;
    outcome.errorString = error.description();
  } catch (const std::exception&) {
    outcome.errorNumber = commandErrorNumber;
    outcome.errorString = Localization::text("error.generic", "L'opération n'a pas pu être effectuée.");
  }
  return outcome;
}

}  // namespace CompressScriptCommand
}  // namespace quillane

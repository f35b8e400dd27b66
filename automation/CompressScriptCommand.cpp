#include "automation/CompressScriptCommand.h"

#include <QFile>
#include <QUrl>

#include <unistd.h>

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

ScriptCommandError ScriptCommandError::folderUnusable(const std::string& folder, const std::string& reason) {
  return ScriptCommandError(folder + ": " + reason);
}

namespace CompressScriptCommand {
namespace {

std::string bytes(const QString& path) { return QFile::encodeName(path).toStdString(); }

bool isList(const QVariant& value) {
  const int type = value.typeId();
  return type == QMetaType::QVariantList || type == QMetaType::QStringList;
}

void collectPaths(const QVariant& value, std::vector<std::string>& paths) {
  if (!value.isValid() || value.isNull()) throw ScriptCommandError::invalidDirectParameter();
  switch (value.typeId()) {
    case QMetaType::QUrl: {
      const QUrl u = value.toUrl();
      paths.push_back(bytes(u.isLocalFile() ? u.toLocalFile() : u.path()));
      return;
    }
    case QMetaType::QString:
      paths.push_back(bytes(value.toString()));
      return;
    case QMetaType::QByteArray:
      paths.push_back(value.toByteArray().toStdString());
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

// Makes the folder if needed and checks that files can be made in it, so that a read-only
// or foreign folder is one error naming it rather than the same error on every file.
void prepareFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw ScriptCommandError::folderUnusable(folder, error.message());
  if (!std::filesystem::is_directory(folder)) throw ScriptCommandError::folderUnusable(folder, std::strerror(ENOTDIR));
  if (::access(folder.c_str(), W_OK | X_OK) != 0) throw ScriptCommandError::folderUnusable(folder, std::strerror(errno));
}

// The file's last component without its extension, in bytes: "a/photo.tar.png" gives "photo.tar".
std::string baseName(const std::string& path) { return std::filesystem::path(path).filename().stem().string(); }

}  // namespace

std::vector<std::string> filePaths(const QVariant& value) {
  std::vector<std::string> paths;
  collectPaths(value, paths);
  return paths;
}

std::optional<std::string> url(const QVariant& value) {
  switch (value.typeId()) {
    case QMetaType::QUrl: {
      const QUrl u = value.toUrl();
      if (u.isLocalFile()) return bytes(u.toLocalFile());
      return std::nullopt;
    }
    case QMetaType::QString:
      return bytes(value.toString());
    case QMetaType::QByteArray:
      return value.toByteArray().toStdString();
    default:
      return std::nullopt;
  }
}

std::string perform(const QVariant& directParameter, const QVariantMap& evaluatedArguments) {
  const std::vector<std::string> paths = filePaths(directParameter);
  if (paths.empty()) throw ScriptCommandError::noFiles();

  // The folder stays in bytes; the resolver only needs to know that one was given.
  const std::optional<std::string> explicitFolder = url(evaluatedArguments.value(toArgument));
  const auto resolved = ExportProfileResolver::resolve(
      profileName(evaluatedArguments), explicitQuality(evaluatedArguments), explicitFormat(evaluatedArguments),
      explicitFolder ? std::optional<QString>(QFile::decodeName(QByteArray::fromStdString(*explicitFolder)))
                     : std::nullopt);
  const std::string folder = explicitFolder ? *explicitFolder
                             : resolved.outputDirectory ? bytes(*resolved.outputDirectory)
                                                        : std::string();
  if (folder.empty()) throw ScriptCommandError::missingOutputDirectory();
  prepareFolder(folder);

  // Fresh for every command: files of one command never take each other's names, and no
  // name is one of the command's inputs; any other file already in the folder is replaced.
  ExportFilenameAllocator allocator(folder, paths);
  const std::string extension(ImageFormats::fileExtension(resolved.format));
  std::vector<ImageCompressionResult> results;
  results.reserve(paths.size());
  for (const std::string& path : paths) {
    const std::string name = allocator.filename(baseName(path), extension);
    results.push_back(ImageCompressor::compress(path, folder, resolved.format, resolved.quality, name));
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

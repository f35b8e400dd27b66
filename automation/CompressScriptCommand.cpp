#include "automation/CompressScriptCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QThread>
#include <QUrl>
#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "batch/ExportFilenameAllocator.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/DecodedImage.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageFormat.h"
#include "engine/ImageService.h"
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

ScriptCommandError ScriptCommandError::invalidOption(const std::string& name, const std::string& value) {
  return ScriptCommandError(Localization::format("appleScript.error.invalidOptionFormat",
                                                 "Valeur invalide pour %1$@ : %2$@", {name, value}));
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
  if (error) throw ScriptCommandError::folderUnusable(folder, Localization::systemError(error.value()));
  if (!std::filesystem::is_directory(folder))
    throw ScriptCommandError::folderUnusable(folder, Localization::systemError(ENOTDIR));
  if (::access(folder.c_str(), W_OK | X_OK) != 0)
    throw ScriptCommandError::folderUnusable(folder, Localization::systemError(errno));
}

// The file's last component without its extension, in bytes: "a/photo.tar.png" gives "photo.tar".
std::string baseName(const std::string& path) {
  return std::filesystem::path(path).filename().stem().string();
}

// Runs job(0) ... job(count - 1) on as many threads as there are processors, each claiming
// costMB(i) from the process's compression budget; returns when all have run. Files start
// strictly in the order of the arguments: a thread takes its index and queues its claim under
// one lock, so the first waiting file holds back those behind it, even when they would fit.
// `job` must not throw; a cost that can't be told takes the whole budget.
void compressInParallel(size_t count, const std::function<void(size_t)>& job,
                        const std::function<int(size_t)>& costMB) {
  const size_t processors = size_t(std::max(QThread::idealThreadCount(), 1));
  CompressionBudget& budget = CompressionBudget::process();
  std::mutex turn;
  size_t next = 0;
  auto worker = [&] {
    while (true) {
      size_t i;
      CompressionBudget::Claim claim;
      {
        std::lock_guard lock(turn);
        if (next >= count) return;
        i = next++;
        int cost = budget.limit();
        try {
          cost = costMB(i);
        } catch (...) {
          // out of memory reading its header: the file runs alone
        }
        claim = budget.claim(cost);
      }
      job(i);
    }
  };
  std::vector<std::thread> threads;
  for (size_t t = 1; t < std::min(processors, count); ++t) threads.emplace_back(worker);
  worker();
  for (std::thread& thread : threads) thread.join();
}

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

CompressionOptions compressionOptions(const QVariantMap& arguments) {
  CompressionOptions options;
  const auto whole = [&](const char* name) -> int {
    const QVariant value = arguments.value(name);
    if (!value.isValid()) return 0;
    bool ok = false;
    const qlonglong number = value.toLongLong(&ok);
    if (value.typeId() == QMetaType::Bool || !ok || number < 1 || number > kMaxDimension)
      throw ScriptCommandError::invalidOption(name, value.toString().toStdString());
    return int(number);
  };
  options.maxWidth = whole(maxWidthArgument);
  options.maxHeight = whole(maxHeightArgument);
  if (const QVariant budget = arguments.value(maxBytesArgument); budget.isValid()) {
    std::optional<int64_t> bytes;
    if (budget.typeId() == QMetaType::QString)
      bytes = ImageCompressor::parseByteCount(budget.toString().toStdString());
    else if (budget.typeId() != QMetaType::Bool && budget.canConvert<qlonglong>() && budget.toLongLong() > 0)
      bytes = budget.toLongLong();
    if (!bytes) throw ScriptCommandError::invalidOption(maxBytesArgument, budget.toString().toStdString());
    options.maxBytes = *bytes;
  }
  if (const QVariant skip = arguments.value(skipLargerArgument); skip.isValid()) {
    if (skip.typeId() != QMetaType::Bool)
      throw ScriptCommandError::invalidOption(skipLargerArgument, skip.toString().toStdString());
    options.skipLarger = skip.toBool();
  }
  return options;
}

std::string perform(const QVariant& directParameter, const QVariantMap& evaluatedArguments) {
  const std::vector<std::string> paths = filePaths(directParameter);
  if (paths.empty()) throw ScriptCommandError::noFiles();
  const CompressionOptions explicitOptions = compressionOptions(evaluatedArguments);

  // The folder stays in bytes; the resolver only needs to know that one was given.
  const std::optional<std::string> explicitFolder = url(evaluatedArguments.value(toArgument));
  const auto resolved = ExportProfileResolver::resolve(
      profileName(evaluatedArguments), explicitQuality(evaluatedArguments),
      explicitFormat(evaluatedArguments),
      explicitFolder ? std::optional<QString>(QFile::decodeName(QByteArray::fromStdString(*explicitFolder)))
                     : std::nullopt);
  const std::string folder = explicitFolder             ? *explicitFolder
                             : resolved.outputDirectory ? bytes(*resolved.outputDirectory)
                                                        : std::string();
  if (folder.empty()) throw ScriptCommandError::missingOutputDirectory();
  prepareFolder(folder);
  const CompressionOptions options = ExportProfileResolver::merged(explicitOptions, resolved.sizing);

  // Fresh for every command: files of one command never take each other's names, and no
  // name is one of the command's inputs; any other file already in the folder is replaced.
  // Names are given in the order of the arguments, before any file is compressed.
  ExportFilenameAllocator allocator(folder, paths);
  const std::string extension(ImageFormats::fileExtension(resolved.format));
  std::vector<std::string> names;
  names.reserve(paths.size());
  for (const std::string& path : paths) names.push_back(allocator.filename(baseName(path), extension));

  std::vector<ImageCompressionResult> results(paths.size());
  compressInParallel(
      paths.size(),
      [&](size_t i) {
        try {
          results[i] = ImageCompressor::compress(paths[i], folder, resolved.format, resolved.quality,
                                                 names[i], true, options);
        } catch (...) {
          // Out of memory for the record itself: the file fails, and the others go on. Nothing
          // escapes, the making of the failure's text included: an escape would end the process.
          try {
            results[i].path = paths[i];
            results[i].error = genericErrorText();
          } catch (...) {
            results[i].error.emplace();  // still failed, without its text (an empty string takes no memory)
          }
        }
      },
      [&](size_t i) {
        return CompressionCost::measuredFileCostMB(paths[i], resolved.format, resolved.quality);
      });
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
    outcome.errorString = genericErrorText();
  }
  return outcome;
}

}  // namespace CompressScriptCommand
}  // namespace quillane

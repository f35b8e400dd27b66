// Export of BatchViewModel: the bytes already held in memory are written as they are,
// synchronously on the GUI thread, each file atomically. Nothing is encoded here, and no
// export replaces the source of any image of the batch.

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "batch/BatchViewModelPrivate.h"
#include "batch/ExportFilenameAllocator.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/Localization.h"

namespace quillane {

namespace {
// The source's file name without its extension, in the file system's bytes.
std::string sourceBaseName(const ImportedImage& image) {
  std::string name = localFilePath(image.sourceURL());
  if (name.empty()) return image.baseName().toStdString();
  name = name.substr(name.rfind('/') + 1);
  const size_t dot = name.rfind('.');
  return dot != std::string::npos && dot > 0 ? name.substr(0, dot) : name;
}
}  // namespace

namespace batchdetail {
std::optional<QString> writeFileAtomically(const std::string& path, const QByteArray& data,
                                           unsigned permissions) {
  try {
    FileIO::writeFileAtomically(
        path, {reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size())}, permissions);
  } catch (const QuillaneError& error) {
    return QString::fromStdString(error.description());
  }
  return std::nullopt;
}
}  // namespace batchdetail

std::vector<std::string> BatchViewModel::sourcePaths() const {
  std::vector<std::string> paths;
  paths.reserve(images_.size());
  for (const auto& image : images_)
    if (image->sourceURL().isLocalFile()) paths.push_back(image->sourceFilePath());
  return paths;
}

void BatchViewModel::promptExportAll() {
  if (!fileDialogs_) return;
  const QString prompt =
      QString::fromStdString(Localization::text("export.chooseFolder.prompt", "Exporter ici"));
  const QString message = QString::fromStdString(
      Localization::text("export.chooseFolder.message", "Choisissez le dossier de destination des images."));
  const std::optional<QUrl> folder =
      fileDialogs_->chooseExportFolder(lastAppliedProfileFolder_, prompt, message);
  // Failures show in the rows through their exportError; the outcomes are not needed here.
  if (folder && !folder->isEmpty()) exportAll(*folder);
}

std::vector<ExportOutcome> BatchViewModel::exportAll(const QUrl& folder) {
  std::vector<ExportOutcome> outcomes;
  // Names stay the file system's bytes, so that a source whose name is not UTF-8 gives an
  // output of the same bytes.
  std::string directory = localFilePath(folder);
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  ExportFilenameAllocator allocator =
      folder.isLocalFile() ? ExportFilenameAllocator(directory, sourcePaths()) : ExportFilenameAllocator();
  // A folder that is not a local one gets destinations that fail to write, row by row,
  // rather than names resolved against the working directory.
  auto destinationFor = [&](const std::string& name) {
    if (folder.isLocalFile()) return localFileURL(directory == "/" ? "/" + name : directory + "/" + name);
    QUrl url = folder;
    url.setPath(folder.path() + (folder.path().endsWith(u'/') ? "" : "/") + QFile::decodeName(name.c_str()));
    return url;
  };
  const std::string extension(ImageFormats::fileExtension(outputFormat_));
  const ImageList snapshot = images_;
  for (const auto& image : snapshot) {
    ExportOutcome outcome{image, std::nullopt, std::nullopt};
    if (!image->compressedData()) {
      outcome.errorDescription = image->exportError() ? *image->exportError() : notEncodedDescription(*image);
    } else if (image->resultShape() && image->resultShape()->keptOriginal) {
      outcome.keptOriginal = true;
    } else {
      const std::string name = allocator.filename(sourceBaseName(*image), extension);
      const QUrl destination = destinationFor(name);
      if (writeExport(image, *image->compressedData(), destination)) {
        outcome.destinationURL = destination;
      } else {
        outcome.errorDescription = image->exportError();
      }
    }
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

bool BatchViewModel::exportSingle(const std::shared_ptr<ImportedImage>& image, const QUrl& url) {
  if (!image) return false;
  if (image->compressedData()) {
    QUrl destination = url;
    if (url.isLocalFile()) {
      // A destination that is a source of the batch gets the next free name beside it.
      const QFileInfo info(url.toLocalFile());
      ExportFilenameAllocator allocator(QFile::encodeName(info.path()).toStdString(), sourcePaths());
      if (allocator.isInput(QFile::encodeName(info.filePath()).toStdString()))
        destination = QUrl::fromLocalFile(
            info.dir().filePath(allocator.filename(info.completeBaseName(), info.suffix())));
    }
    return writeExport(image, *image->compressedData(), destination);
  }
  image->setExportError(notEncodedDescription(*image));
  return false;
}

bool BatchViewModel::writeExport(const std::shared_ptr<ImportedImage>& image, const QByteArray& data,
                                 const QUrl& url) {
  if (!image) return false;
  image->lastExportDestination_ = url;
  const std::string path = localFilePath(url);
  std::optional<QString> error =
      path.empty()
          ? std::optional<QString>(QString::fromStdString(
                FileError(url.toString().toStdString(), "not a local file").description()))
          : batchdetail::writeFileAtomically(path, data, FileIO::permissionsFor(image->sourceFilePath()));
  if (error) {
    image->setExportError(std::move(error));
    return false;
  }
  image->setExportError(std::nullopt);
  recordExport(*image, url, data);
  return true;
}

QString BatchViewModel::notEncodedDescription(const ImportedImage& image) const {
  // An image still busy is reported as an encoding failure as well.
  if (image.encodeState().isFailed()) return image.encodeState().message;
  const std::string label(ImageFormats::label(outputFormat_));
  return QString::fromStdString(ImageProcessingError::encodingFailed(label).description());
}

}  // namespace quillane

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

namespace batchdetail {
std::optional<QString> writeFileAtomically(const QString& path, const QByteArray& data) {
  try {
    FileIO::writeFileAtomically(QFile::encodeName(path).toStdString(),
                                {reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size())});
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
  const QDir directory(folder.toLocalFile());
  ExportFilenameAllocator allocator =
      folder.isLocalFile()
          ? ExportFilenameAllocator(QFile::encodeName(directory.path()).toStdString(), sourcePaths())
          : ExportFilenameAllocator();
  // A folder that is not a local one gets destinations that fail to write, row by row,
  // rather than names resolved against the working directory.
  auto destinationFor = [&](const QString& name) {
    if (folder.isLocalFile()) return QUrl::fromLocalFile(directory.filePath(name));
    QUrl url = folder;
    url.setPath(folder.path() + (folder.path().endsWith(u'/') ? "" : "/") + name);
    return url;
  };
  const QString extension = batchdetail::toQString(ImageFormats::fileExtension(outputFormat_));
  const ImageList snapshot = images_;
  for (const auto& image : snapshot) {
    ExportOutcome outcome{image, std::nullopt, std::nullopt};
    if (!image->compressedData()) {
      outcome.errorDescription = image->exportError() ? *image->exportError() : notEncodedDescription(*image);
    } else {
      const QString name = allocator.filename(image->baseName(), extension);
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
  const QString path = url.toLocalFile();
  std::optional<QString> error =
      path.isEmpty() ? std::optional<QString>(QString::fromStdString(
                           FileError(url.toString().toStdString(), "not a local file").description()))
                     : batchdetail::writeFileAtomically(path, data);
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

#include "batch/ExportFilenameAllocator.h"

namespace quillane {

QString ExportFilenameAllocator::filename(const QString& baseName, const QString& fileExtension) {
  QString candidate = baseName + QLatin1Char('.') + fileExtension;
  for (int n = 2; used_.contains(candidate.toLower()); ++n) {
    candidate = baseName + QLatin1Char('-') + QString::number(n) + QLatin1Char('.') + fileExtension;
  }
  used_.insert(candidate.toLower());
  return candidate;
}

}  // namespace quillane

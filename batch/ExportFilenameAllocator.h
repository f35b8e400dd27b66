#pragma once
// ExportFilenameAllocator: keeps the file names of one export run apart. Names are compared
// without regard to case, so that "Photo.jpg" and "photo.jpg" never land on the same file of
// a case-insensitive volume; a clash gets "-2", "-3" and so on before the extension. Only the
// names of this run count: files already in the folder are not looked at. A plain value,
// used on one thread.

#include <QSet>
#include <QString>

namespace quillane {

class ExportFilenameAllocator {
 public:
  // baseName + "." + fileExtension when that is new to this run, else the first free
  // baseName + "-" + n + "." + fileExtension for n = 2, 3, ...; case as given.
  QString filename(const QString& baseName, const QString& fileExtension);

 private:
  QSet<QString> used_;  // lower case
};

}  // namespace quillane

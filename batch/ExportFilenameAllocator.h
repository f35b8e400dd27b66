#pragma once
// ExportFilenameAllocator: keeps the file names of one export run apart. Names are compared
// without regard to case, so that "Photo.jpg" and "photo.jpg" never land on the same file of
// a case-insensitive volume; a clash gets "-2", "-3" and so on before the extension. Only the
// names of this run count: files already in the folder are replaced, with one exception. A
// run told its folder and its inputs never hands out a name whose file in that folder is one
// of those inputs (the same device and inode: the path itself, a hard link to it, or a link
// given as an input); that name is passed over like one already given. So a run never
// replaces a file it reads, whether it has read it yet or not. A plain value, used on one
// thread; every front end that writes (command line, batch export, local API, D-Bus) makes
// one per run.

#include <QSet>
#include <QString>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quillane {

class ExportFilenameAllocator {
 public:
  ExportFilenameAllocator() = default;
  // `folder` and `inputPaths` are file system paths as bytes (QFile::encodeName). Inputs that
  // don't exist are ignored. The identities are taken now, once.
  ExportFilenameAllocator(std::string folder, const std::vector<std::string>& inputPaths);

  // baseName + "." + fileExtension when that is new to this run and not an input, else the
  // first free baseName + "-" + n + "." + fileExtension for n = 2, 3, ...; case as given. An
  // empty extension gives names without a dot. A name is at most 255 bytes: a longer base
  // name is cut short, at a character's boundary.
  QString filename(const QString& baseName, const QString& fileExtension);
  // The same in bytes, for names that are not valid UTF-8; they come back byte for byte.
  std::string filename(const std::string& baseName, const std::string& fileExtension);

  // Whether `path` (bytes) is the same file as one of the inputs.
  bool isInput(const std::string& path) const;

 private:
  bool isInputName(const std::string& name) const;

  QSet<QByteArray> used_;  // case-folded
  std::string folder_;
  std::set<std::pair<unsigned long long, unsigned long long>> inputs_;  // device, inode
};

}  // namespace quillane

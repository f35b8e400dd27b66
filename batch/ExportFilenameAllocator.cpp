#include "batch/ExportFilenameAllocator.h"

#include <sys/stat.h>

namespace quillane {
namespace {

// The key two names share when a case-insensitive volume would take them for one. Names that
// are not valid UTF-8 fold their ASCII letters only.
QByteArray caseKey(const std::string& name) {
  const QByteArray bytes = QByteArray::fromStdString(name);
  const QString text = QString::fromUtf8(bytes);
  if (text.toUtf8() == bytes) return text.toLower().toUtf8();
  return bytes.toLower();
}

// The longest name a Linux file system takes (NAME_MAX). A longer one (a long name given a
// longer extension, or a number) loses the end of its base name, never part of a character.
constexpr size_t kMaxNameBytes = 255;

std::string candidate(const std::string& base, int n, const std::string& extension) {
  std::string suffix = n < 2 ? std::string() : "-" + std::to_string(n);
  if (!extension.empty()) suffix += "." + extension;
  if (base.size() + suffix.size() <= kMaxNameBytes) return base + suffix;
  size_t length = suffix.size() < kMaxNameBytes ? kMaxNameBytes - suffix.size() : 0;
  while (length > 0 && (static_cast<unsigned char>(base[length]) & 0xC0) == 0x80) --length;
  return base.substr(0, length) + suffix;
}

}  // namespace

ExportFilenameAllocator::ExportFilenameAllocator(std::string folder,
                                                 const std::vector<std::string>& inputPaths)
    : folder_(std::move(folder)) {
  for (const std::string& path : inputPaths) {
    struct stat st {};
    // Both the file a link leads to and the link itself: replacing either loses an input.
    if (::stat(path.c_str(), &st) == 0) inputs_.emplace(st.st_dev, st.st_ino);
    if (::lstat(path.c_str(), &st) == 0) inputs_.emplace(st.st_dev, st.st_ino);
  }
}

bool ExportFilenameAllocator::isInput(const std::string& path) const {
  if (inputs_.empty()) return false;
  // The writer replaces a link at the destination rather than writing through it, so what
  // would be lost is the entry itself: lstat, not stat.
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && inputs_.count({st.st_dev, st.st_ino}) > 0;
}

bool ExportFilenameAllocator::isInputName(const std::string& name) const {
  if (inputs_.empty()) return false;
  const std::string folder = folder_.empty() ? std::string(".") : folder_;
  return isInput(folder.back() == '/' ? folder + name : folder + "/" + name);
}

std::string ExportFilenameAllocator::filename(const std::string& baseName, const std::string& fileExtension) {
  for (int n = 1;; ++n) {
    std::string name = candidate(baseName, n, fileExtension);
    const QByteArray key = caseKey(name);
    if (used_.contains(key) || isInputName(name)) continue;
    used_.insert(key);
    return name;
  }
}

QString ExportFilenameAllocator::filename(const QString& baseName, const QString& fileExtension) {
  return QString::fromStdString(filename(baseName.toStdString(), fileExtension.toStdString()));
}

}  // namespace quillane

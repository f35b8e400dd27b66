#include "batch/BatchSupport.h"

#include <QFile>

#include "engine/Errors.h"
#include "engine/FileIO.h"

namespace quillane::batchdetail {

QString describeCurrentException(const QString& fallback) {
  try {
    throw;
  } catch (const QuillaneError& error) {
    return QString::fromStdString(error.description());
  } catch (...) {
    return fallback;
  }
}

std::optional<QString> writeFileAtomically(const QString& path, const QByteArray& data) {
  try {
    FileIO::writeFileAtomically(QFile::encodeName(path).toStdString(),
                                {reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size())});
  } catch (const QuillaneError& error) {
    return QString::fromStdString(error.description());
  }
  return std::nullopt;
}

}  // namespace quillane::batchdetail

#include "batch/BatchSupport.h"

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

}  // namespace quillane::batchdetail

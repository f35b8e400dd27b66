#pragma once
// Small helpers shared by the batch's classes (the model, its scheduler and its exporter).
// Not for use outside batch/. Any thread.

#include <QByteArray>
#include <QString>
#include <optional>
#include <string>

namespace quillane::batchdetail {

// The localised description of whatever an engine call threw; `fallback` for errors that
// carry none of their own. REQUIRES: called inside a catch block.
QString describeCurrentException(const QString& fallback);

// Atomic whole-file write (temporary file in the same folder, then rename) of `path`, the file
// system's bytes. Nothing on success, the system's text on failure; a failure leaves any
// older file untouched.
std::optional<QString> writeFileAtomically(const std::string& path, const QByteArray& data,
                                           unsigned permissions = 0666);

}  // namespace quillane::batchdetail

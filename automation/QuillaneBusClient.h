#pragma once
// QuillaneBusClient: the other side of QuillaneBusService, for a second launch of the
// program (hand the files over, raise the window, run Compress) and for tests and benchmarks.
//
// Blocking calls; any thread that may use `connection`.

#include <QDBusConnection>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <optional>

namespace quillane::QuillaneBusClient {

// Whether some process owns com.quillane.Quillane on `connection` (false when not connected).
bool isRunning(const QDBusConnection& connection);

// org.freedesktop.Application.Open with the files (absolute file URLs), or Activate when
// `files` is empty. Nothing on success, else the error's message.
std::optional<QString> openOrActivate(const QDBusConnection& connection, const QList<QUrl>& files);

struct CompressReply {
  QStringList outputs;  // the written files, on success
  QString errorName;    // empty on success
  QString errorMessage;
  bool succeeded() const { return errorName.isEmpty(); }
};

// com.quillane.Quillane.Compress, waiting as long as the call takes (a queue of large files
// may take minutes; the bus's default of 25 seconds would give up too early).
CompressReply compress(const QDBusConnection& connection, const QStringList& files, const QString& format,
                       int quality, const QString& profileName, const QString& outputFolder);

}  // namespace quillane::QuillaneBusClient

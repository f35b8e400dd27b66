#include "automation/QuillaneBusClient.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QUrl>
#include <QVariantMap>

#include "automation/QuillaneBusService.h"

namespace quillane::QuillaneBusClient {

namespace {
constexpr int kCompressTimeoutMs = 24 * 3600 * 1000;
}

bool isRunning(const QDBusConnection& connection) {
  if (!connection.isConnected()) return false;
  const QDBusReply<bool> reply = connection.interface()->isServiceRegistered(QuillaneBusService::serviceName);
  return reply.isValid() && reply.value();
}

std::optional<QString> openOrActivate(const QDBusConnection& connection, const QList<QUrl>& files) {
  const QString interface = QStringLiteral("org.freedesktop.Application");
  // The token the launcher gave this launch lets the running window come to the front.
  QVariantMap platformData;
  if (qEnvironmentVariableIsSet("XDG_ACTIVATION_TOKEN"))
    platformData.insert(QStringLiteral("activation-token"), qEnvironmentVariable("XDG_ACTIVATION_TOKEN"));
  if (qEnvironmentVariableIsSet("DESKTOP_STARTUP_ID"))
    platformData.insert(QStringLiteral("desktop-startup-id"), qEnvironmentVariable("DESKTOP_STARTUP_ID"));
  QDBusMessage call;
  if (files.isEmpty()) {
    call = QDBusMessage::createMethodCall(QuillaneBusService::serviceName, QuillaneBusService::objectPath,
                                          interface, QStringLiteral("Activate"));
    call << platformData;
  } else {
    QStringList uris;
    for (const QUrl& file : files) uris.append(file.toString(QUrl::FullyEncoded));
    call = QDBusMessage::createMethodCall(QuillaneBusService::serviceName, QuillaneBusService::objectPath,
                                          interface, QStringLiteral("Open"));
    call << uris << platformData;
  }
  const QDBusMessage reply = connection.call(call);
  if (reply.type() == QDBusMessage::ErrorMessage) return reply.errorMessage();
  return std::nullopt;
}

CompressReply compress(const QDBusConnection& connection, const QStringList& files, const QString& format,
                       int quality, const QString& profileName, const QString& outputFolder) {
  QDBusMessage call =
      QDBusMessage::createMethodCall(QuillaneBusService::serviceName, QuillaneBusService::objectPath,
                                     QuillaneBusService::interfaceName, QStringLiteral("Compress"));
  call << files << format << quality << profileName << outputFolder;
  const QDBusMessage reply = connection.call(call, QDBus::Block, kCompressTimeoutMs);
  CompressReply result;
  if (reply.type() == QDBusMessage::ErrorMessage) {
    result.errorName = reply.errorName();
    result.errorMessage = reply.errorMessage();
  } else {
    result.outputs = reply.arguments().value(0).toStringList();
  }
  return result;
}

}  // namespace quillane::QuillaneBusClient

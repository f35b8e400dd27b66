#include "automation/DesktopNotification.h"

#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>

namespace quillane::DesktopNotification {

std::optional<uint> notify(const QDBusConnection& connection, const QString& summary, const QString& body,
                           const QStringList& actions) {
  if (!connection.isConnected()) return std::nullopt;
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
  QVariantMap hints;
  hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("com.quillane.Quillane"));
  // app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout (-1: the server's)
  call << QStringLiteral("Quillane") << uint(0) << QStringLiteral("com.quillane.Quillane") << summary << body
       << actions << hints << int(-1);
  // Without a notification service the bus answers at once with ServiceUnknown (no
  // activation is attempted for a name nobody provides).
  const QDBusMessage reply = connection.call(call, QDBus::Block, 5000);
  if (reply.type() != QDBusMessage::ReplyMessage) return std::nullopt;
  return reply.arguments().value(0).toUInt();
}

bool supportsActions(const QDBusConnection& connection) {
  if (!connection.isConnected()) return false;
  const QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("GetCapabilities"));
  const QDBusMessage reply = connection.call(call, QDBus::Block, 5000);
  return reply.type() == QDBusMessage::ReplyMessage &&
         reply.arguments().value(0).toStringList().contains(QStringLiteral("actions"));
}

}  // namespace quillane::DesktopNotification

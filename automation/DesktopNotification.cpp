#include "automation/DesktopNotification.h"

#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>

namespace quillane::DesktopNotification {

QStringList capabilities(const QDBusConnection& connection) {
  if (!connection.isConnected()) return {};
  const QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("GetCapabilities"));
  const QDBusMessage reply = connection.call(call, QDBus::Block, 5000);
  return reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0).toStringList()
                                                    : QStringList();
}

std::optional<uint> notify(const QDBusConnection& connection, const QString& summary, const QString& body,
                           const QStringList& actions, const std::optional<QStringList>& served) {
  if (!connection.isConnected()) return std::nullopt;
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
      QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
  QVariantMap hints;
  hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("com.quillane.Quillane"));
  // app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout (-1: the server's)
  // A service that reads the body as markup would take "a<b>.png" or "R&D" in a file's name for
  // markup, and show it wrongly or not at all.
  const bool markup = (served ? *served : capabilities(connection)).contains(QStringLiteral("body-markup"));
  call << QStringLiteral("Quillane") << uint(0) << QStringLiteral("com.quillane.Quillane") << summary
       << (markup ? body.toHtmlEscaped() : body) << actions << hints << int(-1);
  // Without a notification service the bus answers at once with ServiceUnknown (no
  // activation is attempted for a name nobody provides).
  const QDBusMessage reply = connection.call(call, QDBus::Block, 5000);
  if (reply.type() != QDBusMessage::ReplyMessage) return std::nullopt;
  return reply.arguments().value(0).toUInt();
}

}  // namespace quillane::DesktopNotification

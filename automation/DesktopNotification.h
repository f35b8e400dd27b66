#pragma once
// DesktopNotification: one message through the desktop's notification service
// (org.freedesktop.Notifications on the session bus).
//
// Blocking; any thread that may use `connection`.

#include <QDBusConnection>
#include <QString>
#include <QStringList>
#include <optional>

namespace quillane::DesktopNotification {

// What the notification service shows and reads ("actions", "body-markup", ...); nothing
// without a bus or a service.
QStringList capabilities(const QDBusConnection& connection);

// Shows `summary` and `body` under the application's name and icon, with `actions` (pairs of
// an action's key and its label, as the service takes them). `served` are the service's
// capabilities where the caller has them already; they are asked for otherwise. The
// notification's id, or nothing when there is no bus or no notification service (the caller
// then says it another way). The service reports a chosen action with its ActionInvoked signal.
std::optional<uint> notify(const QDBusConnection& connection, const QString& summary, const QString& body,
                           const QStringList& actions = {},
                           const std::optional<QStringList>& served = std::nullopt);

inline bool show(const QDBusConnection& connection, const QString& summary, const QString& body) {
  return notify(connection, summary, body).has_value();
}

}  // namespace quillane::DesktopNotification

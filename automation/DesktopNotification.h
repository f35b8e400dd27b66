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

// Shows `summary` and `body` under the application's name and icon, with `actions` (pairs of
// an action's key and its label, as the service takes them). The notification's id, or
// nothing when there is no bus or no notification service (the caller then says it another
// way). The service reports a chosen action with its ActionInvoked signal.
std::optional<uint> notify(const QDBusConnection& connection, const QString& summary, const QString& body,
                           const QStringList& actions = {});

// Whether the notification service shows actions (its capability "actions"); false without one.
bool supportsActions(const QDBusConnection& connection);

inline bool show(const QDBusConnection& connection, const QString& summary, const QString& body) {
  return notify(connection, summary, body).has_value();
}

}  // namespace quillane::DesktopNotification

#pragma once
// DesktopNotification: one message through the desktop's notification service
// (org.freedesktop.Notifications on the session bus).
//
// Blocking; any thread that may use `connection`.

#include <QDBusConnection>
#include <QString>

namespace quillane::DesktopNotification {

// Shows `summary` and `body` under the application's name and icon. False when there is no
// bus or no notification service (the caller then says it another way).
bool show(const QDBusConnection& connection, const QString& summary, const QString& body);

}  // namespace quillane::DesktopNotification

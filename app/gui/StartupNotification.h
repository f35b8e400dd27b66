#pragma once
// Startup notification on X11 (the freedesktop startup-notification protocol): a launcher that
// starts the program with DESKTOP_STARTUP_ID shows it as starting (a busy pointer, a spinning
// entry) until a "remove" message for that id goes to the root window. Qt sends it when the
// first window shows; a launch that hands its files to the running instance, and the compress
// action, show none, so they send the message themselves. On Wayland the activation token goes
// to the running instance instead (QuillaneBusClient::openOrActivate). GUI thread.

#include <QByteArray>

namespace quillane::StartupNotification {

// Sends the "remove" message for `id` on the application's X11 connection, or with no GUI application on
// a connection of its own to $DISPLAY; nothing without an id, an X11 GUI (offscreen, Wayland) or a display.
void complete(const QByteArray& id);

}  // namespace quillane::StartupNotification

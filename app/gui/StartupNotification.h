#pragma once
// Startup notification on X11 (the freedesktop startup-notification protocol): a launcher that
// starts the program with DESKTOP_STARTUP_ID shows it as starting (a busy pointer, a spinning
// entry) until a "remove" message for that id goes to the root window. Qt sends it when the
// first window shows; a launch that hands its files to the running instance shows none and
// ends, so it sends the message itself. On Wayland the activation token goes to the running
// instance instead (QuillaneBusClient::openOrActivate). GUI thread.

#include <QByteArray>

namespace quillane::StartupNotification {

// Sends the "remove" message for `id` on the application's X11 connection; nothing without one (offscreen,
// Wayland) or without an id.
void complete(const QByteArray& id);

}  // namespace quillane::StartupNotification

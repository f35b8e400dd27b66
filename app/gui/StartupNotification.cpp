#include "app/gui/StartupNotification.h"

#include <QtGui/qguiapplication_platform.h>
#include <xcb/xcb.h>

#include <QGuiApplication>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace quillane::StartupNotification {

namespace {
xcb_atom_t atom(xcb_connection_t* connection, const char* name) {
  xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
      connection, xcb_intern_atom(connection, 0, uint16_t(std::strlen(name)), name), nullptr);
  const xcb_atom_t found = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
  std::free(reply);
  return found;
}

// The message for `id`, NUL included, as the protocol quotes it: a space, `"` or `\` escaped.
QByteArray removeMessage(const QByteArray& id) {
  QByteArray message("remove: ID=");
  for (char c : id) {
    if (c == ' ' || c == '"' || c == '\\') message += '\\';
    message += c;
  }
  message += '\0';
  return message;
}

void send(xcb_connection_t* connection, const QByteArray& id) {
  const QByteArray message = removeMessage(id);
  const xcb_atom_t begin = atom(connection, "_NET_STARTUP_INFO_BEGIN");
  const xcb_atom_t more = atom(connection, "_NET_STARTUP_INFO");
  const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
  // In pieces of 20 bytes, the first under _NET_STARTUP_INFO_BEGIN, the last padded with zeros.
  for (qsizetype sent = 0; sent < message.size(); sent += 20) {
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 8;
    event.window = root;
    event.type = sent == 0 ? begin : more;
    std::memcpy(event.data.data8, message.constData() + sent,
                size_t(std::min<qsizetype>(20, message.size() - sent)));
    xcb_send_event(connection, 0, root, XCB_EVENT_MASK_PROPERTY_CHANGE,
                   reinterpret_cast<const char*>(&event));
  }
  // A round trip: the launch ends right after, and a connection that closes at once has its last
  // requests dropped unread.
  std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}
}  // namespace

void complete(const QByteArray& id) {
  if (id.isEmpty()) return;
  if (qGuiApp) {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 && x11->connection()) send(x11->connection(), id);
    return;
  }
  // No GUI (the compress action): a connection of its own to the launcher's display.
  if (qEnvironmentVariableIsEmpty("DISPLAY")) return;
  const std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> own(xcb_connect(nullptr, nullptr),
                                                                         &xcb_disconnect);
  if (!xcb_connection_has_error(own.get())) send(own.get(), id);
}

}  // namespace quillane::StartupNotification

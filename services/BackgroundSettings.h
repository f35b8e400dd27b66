#pragma once
// BackgroundSettings: whether Quillane goes on watching its hot folders once its window is
// closed, and whether it starts, windowless, when the user logs in.
//
//   "keepWatchingInBackground"  a switch in Quillane.conf, off unless set
//   "backgroundNoticeShown"     set once the first "keeps running" notification was shown
//   Start at login              the XDG autostart entry
//                               $XDG_CONFIG_HOME/autostart/com.quillane.Quillane.desktop,
//                               which runs `quillane --background`; present means on, unless
//                               the desktop's settings turned it off in it
//
// GUI thread only (settings are read and written per call).

#include <QString>

namespace quillane::BackgroundSettings {

bool keepsWatching();
void setKeepsWatching(bool on);

// True the first time it is asked (and notes it); false ever after.
bool takeFirstBackgroundNotice();

// Where the autostart entry lives.
QString autostartEntryPath();
// Whether the autostart entry exists, can be read, and is not turned off in it (Hidden=true,
// X-GNOME-Autostart-enabled=false).
bool startsAtLogin();
// Writes the entry (atomically, running `program` with --background) or deletes it. False
// when it could not be written or removed; the state is then what startsAtLogin() says.
bool setStartsAtLogin(bool on, const QString& program);
// The entry's text for `program` (an absolute path; quoted as the desktop entry format wants).
QString autostartEntry(const QString& program);

}  // namespace quillane::BackgroundSettings

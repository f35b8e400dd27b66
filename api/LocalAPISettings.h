#pragma once
// The three settings of the local API and its bearer token, kept in the application's
// settings file ($XDG_CONFIG_HOME/Quillane/Quillane.conf, INI form) under the keys
// "localAPIEnabled", "localAPIPort" and "localAPIToken". The file holds the token, so every
// write through this namespace leaves it readable by its owner only (mode 0600).
//
// GUI thread only, but for token() (QSettings instances are made per call and not shared).

#include <QString>
#include <memory>
#include <optional>

class QSettings;

namespace quillane::LocalAPISettings {

inline constexpr int defaultPort = 51823;
inline constexpr const char* enabledKey = "localAPIEnabled";
inline constexpr const char* portKey = "localAPIPort";
inline constexpr const char* tokenKey = "localAPIToken";

// The application's settings store, SettingsFile::store(): an INI file at
// $XDG_CONFIG_HOME/Quillane/Quillane.conf.
std::unique_ptr<QSettings> store();
// SettingsFile::save(): writes `settings` to disk and restricts its file to mode 0600.
void saveSecurely(QSettings& settings);

// "localAPIEnabled"; false when absent.
bool isEnabled();
void setEnabled(bool enabled);
// "localAPIPort" as stored; 0 when absent or outside 1 to 65535 (0 stands for defaultPort).
int storedPort();
// The port to listen on: the stored one, or defaultPort for 0.
int effectivePort();
void setPort(int port);

// The stored token; makes and stores one first when there is none or it is empty. Any
// non-empty stored value is the token, whatever its form. Empty only when the system's
// random source failed, in which case nothing is stored and no request can authorize.
// Any thread (the server's gate reads it for every request): callers that find no token at
// the same time get the same new one.
QString token();
// Stores `token` (the pane's regenerate button).
void setToken(const QString& token);
// "qlne_" and 43 URL-safe Base64 characters carrying 32 bytes from getrandom(2); nothing
// when the random source fails (no weaker source is ever used).
std::optional<QString> generateToken();

}  // namespace quillane::LocalAPISettings

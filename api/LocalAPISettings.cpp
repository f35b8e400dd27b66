#include "api/LocalAPISettings.h"

#include <sys/random.h>

#include <QByteArray>
#include <QMutex>
#include <QSettings>
#include <cerrno>

#include "services/SettingsFile.h"

namespace quillane::LocalAPISettings {

namespace {

// Fills `length` bytes from the kernel's random source, retrying short or interrupted reads.
bool fillRandom(char* out, size_t length) {
  size_t filled = 0;
  while (filled < length) {
    ssize_t n = ::getrandom(out + filled, length - filled, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    filled += size_t(n);
  }
  return true;
}

}  // namespace

std::unique_ptr<QSettings> store() { return SettingsFile::store(); }

void saveSecurely(QSettings& settings) { SettingsFile::save(settings); }

bool isEnabled() { return SettingsFile::boolValue(*store(), enabledKey); }

void setEnabled(bool enabled) {
  auto settings = store();
  settings->setValue(enabledKey, enabled);
  saveSecurely(*settings);
}

int storedPort() {
  // A port no server can listen on (written by hand) reads as none: the listener would take
  // 65535 for 70000, and a port of its own choosing for -5, where the pane showed the number.
  const int port = store()->value(portKey, 0).toInt();
  return port >= 1 && port <= 65535 ? port : 0;
}

int effectivePort() {
  int port = storedPort();
  return port == 0 ? defaultPort : port;
}

void setPort(int port) {
  auto settings = store();
  settings->setValue(portKey, port);
  saveSecurely(*settings);
}

QString token() {
  // The server's gate and the window may both find no token at once: one makes it.
  static QMutex mutex;
  QMutexLocker lock(&mutex);
  auto settings = store();
  QString stored = SettingsFile::stringValue(*settings, tokenKey);
  if (!stored.isEmpty()) return stored;
  std::optional<QString> fresh = generateToken();
  if (!fresh) return {};
  settings->setValue(tokenKey, *fresh);
  saveSecurely(*settings);
  return *fresh;
}

void setToken(const QString& token) {
  auto settings = store();
  settings->setValue(tokenKey, token);
  saveSecurely(*settings);
}

std::optional<QString> generateToken() {
  char bytes[32];
  if (!fillRandom(bytes, sizeof bytes)) return std::nullopt;
  QByteArray encoded = QByteArray(bytes, sizeof bytes)
                           .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
  return QStringLiteral("qlne_") + QString::fromLatin1(encoded);
}

}  // namespace quillane::LocalAPISettings

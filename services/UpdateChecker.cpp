#include "services/UpdateChecker.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "QuillaneVersion.h"
#include "engine/Localization.h"
#include "services/DecimalText.h"
#include "services/SettingsFile.h"
#include "services/Strings.h"

#ifndef QUILLANE_UPDATE_HOST
#define QUILLANE_UPDATE_HOST ""
#endif

namespace quillane {

namespace {

// The desktop's proxy (http_proxy and https_proxy, or the desktop's settings through
// libproxy), as a browser would take it; Qt goes direct unless told. Never for this machine.
class DesktopProxies : public QNetworkProxyFactory {
 public:
  QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override {
    const QHostAddress address(query.peerHostName());
    if (address.isLoopback() || query.peerHostName() == QLatin1String("localhost"))
      return {QNetworkProxy::NoProxy};
    return systemProxyForQuery(query);
  }
};

const QString kEnabledKey = QStringLiteral("updateCheckEnabled");

// Each piece a signed base-10 integer within 64 bits; a piece that is anything else is dropped.
std::vector<int64_t> versionNumbers(const QString& version) {
  std::vector<int64_t> numbers;
  for (const QString& piece : version.split(QLatin1Char('.'), Qt::SkipEmptyParts))
    if (std::optional<int64_t> number = parseDecimalInteger(piece)) numbers.push_back(*number);
  return numbers;
}

}  // namespace

UpdateChecker::UpdateChecker(QObject* parent)
    : UpdateChecker(QUrl(QStringLiteral("https://") + QStringLiteral(QUILLANE_UPDATE_HOST)),
                    currentAppVersion(), kDeadlineMs, parent) {}

UpdateChecker::UpdateChecker(const QUrl& baseUrl, const QString& currentVersion, int deadlineMs,
                             QObject* parent)
    : QObject(parent),
      versionCheckUrl_(baseUrl.resolved(QUrl(QStringLiteral("/version.json")))),
      currentVersion_(currentVersion.isEmpty() ? QStringLiteral("0") : currentVersion),
      deadlineMs_(deadlineMs) {
  network_.setProxyFactory(new DesktopProxies);  // the manager owns it
}

QString UpdateChecker::currentAppVersion() { return QString::fromLatin1(kAppVersion); }

bool UpdateChecker::isCheckAtLaunchEnabled() {
  return SettingsFile::boolValue(*SettingsFile::store(), kEnabledKey);
}

void UpdateChecker::setCheckAtLaunchEnabled(bool enabled) {
  auto settings = SettingsFile::store();
  settings->setValue(kEnabledKey, enabled);
  SettingsFile::save(*settings);
}

bool UpdateChecker::isNewer(const QString& a, const QString& b) {
  std::vector<int64_t> left = versionNumbers(a), right = versionNumbers(b);
  size_t count = std::max(left.size(), right.size());
  for (size_t i = 0; i < count; ++i) {
    int64_t x = i < left.size() ? left[i] : 0;
    int64_t y = i < right.size() ? right[i] : 0;
    if (x != y) return x > y;
  }
  return false;
}

void UpdateChecker::setState(State state) {
  if (state_ == state) return;
  state_ = std::move(state);
  emit stateChanged();
}

void UpdateChecker::checkNow() {
  setState(State::checking());
  QNetworkRequest request(versionCheckUrl_);
  // Neither a local nor an intermediate cache may answer for the server.
  request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
  request.setRawHeader("Cache-Control", "no-cache");
  request.setRawHeader("Pragma", "no-cache");
  request.setTransferTimeout(kTimeoutMs);
  QNetworkReply* reply = network_.get(request);
  connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
    if (received <= kMaxDocumentBytes) return;
    reply->setProperty("tooLong", true);
    reply->abort();
  });
  // The transfer time-out counts only silence: a byte every few seconds would keep it waiting.
  QTimer::singleShot(deadlineMs_, reply, [reply] { reply->abort(); });
  connect(reply, &QNetworkReply::finished, this, [this, reply] { handleReply(reply); });
}

QString UpdateChecker::failureText(QNetworkReply::NetworkError error) {
  // Qt's own error strings are English and name sockets; the user gets one of a few
  // translated sentences.
  switch (error) {
    case QNetworkReply::OperationCanceledError:
    case QNetworkReply::TimeoutError:
      // The transfer time-out and the deadline abort the reply, which Qt reports as a
      // cancellation; nothing else here cancels a request.
      return Strings::text("settings.updates.timedOut");
    case QNetworkReply::HostNotFoundError:
      return Strings::text("settings.updates.errorHostNotFound");
    case QNetworkReply::SslHandshakeFailedError:
      return Strings::text("settings.updates.errorSecure");
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::ProxyNotFoundError:
    case QNetworkReply::ProxyTimeoutError:
    case QNetworkReply::ProxyAuthenticationRequiredError:
    case QNetworkReply::UnknownProxyError:
      return Strings::text("settings.updates.errorProxy");
    default:
      return Strings::text("settings.updates.errorConnection");
  }
}

void UpdateChecker::handleReply(QNetworkReply* reply) {
  reply->deleteLater();
  if (reply->property("tooLong").toBool()) {
    setState(State::failed(Strings::text("settings.updates.unreadableResponse")));
    return;
  }
  const QNetworkReply::NetworkError error = reply->error();
  // The status code is not looked at: a server that answered with an error status (Qt turns
  // each into an error of its own, 400 into ProtocolInvalidOperationError, 407 into a proxy
  // error) still answered, and only its body counts. A time-out after the head is no answer.
  const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
  const bool answered = status >= 400 && error != QNetworkReply::OperationCanceledError;
  if (error != QNetworkReply::NoError && !answered) {
    setState(State::failed(failureText(error)));
    return;
  }
  setState(evaluate(reply->readAll()));
}

UpdateChecker::State UpdateChecker::evaluate(const QByteArray& body) const {
  State unreadable = State::failed(Strings::text("settings.updates.unreadableResponse"));
  QJsonParseError parseError{};
  QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
  if (parseError.error != QJsonParseError::NoError || !document.isObject()) return unreadable;
  const QJsonObject object = document.object();
  const QJsonValue version = object.value(QLatin1String("version"));
  const QJsonValue link = object.value(QLatin1String("url"));
  if (!version.isString() || !link.isString()) return unreadable;
  QUrl url(link.toString(), QUrl::StrictMode);
  if (link.toString().isEmpty() || !url.isValid()) return unreadable;

  // The document must not send the user to a plain HTTP or any other kind of link.
  if (url.scheme().toLower() != QLatin1String("https"))
    return State::failed(Strings::text("settings.updates.invalidRemoteFile"));

  if (isNewer(version.toString(), currentVersion_)) return State::updateAvailable(version.toString(), url);
  return State::upToDate();
}

}  // namespace quillane

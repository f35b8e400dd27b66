#pragma once
// UpdateChecker asks the product's web server whether a newer version exists and tells the
// result through one observable state. It never downloads or installs anything: the user
// gets a link to follow.
//
// The version document is one HTTPS GET of "/version.json" on the host fixed at build time
// (QUILLANE_UPDATE_HOST), a JSON object {"version": "1.4.2", "url": "https://..."}.
//
// GUI thread only: the state changes there, and the request's answer is handled there.

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QObject>
#include <QString>
#include <QUrl>

class QNetworkReply;

namespace quillane {

class UpdateChecker : public QObject {
  Q_OBJECT

 public:
  struct State {
    enum class Kind { idle, checking, upToDate, updateAvailable, failed };
    Kind kind = Kind::idle;
    QString version;  // updateAvailable: the server's version
    QUrl url;         // updateAvailable: the page to send the user to
    QString message;  // failed: the text to show

    static State idle() { return {}; }
    static State checking() { return {Kind::checking, {}, {}, {}}; }
    static State upToDate() { return {Kind::upToDate, {}, {}, {}}; }
    static State updateAvailable(QString version, QUrl url) {
      return {Kind::updateAvailable, std::move(version), std::move(url), {}};
    }
    static State failed(QString message) { return {Kind::failed, {}, {}, std::move(message)}; }
    bool operator==(const State&) const = default;
  };

  // The request gives up after this long without progress,
  static constexpr int kTimeoutMs = 15000;
  // and the whole check after this long, however a server trickles its answer.
  static constexpr int kDeadlineMs = 60000;
  // The document is two short keys: an answer longer than this is no version document, and is
  // not taken into memory whole (a server that never stops sending can't fill it).
  static constexpr qint64 kMaxDocumentBytes = qint64{64} * 1024;

  // Checks https://QUILLANE_UPDATE_HOST/version.json against the version of this build.
  explicit UpdateChecker(QObject* parent = nullptr);
  // Checks `baseUrl` + "/version.json" against `currentVersion` (tests serve the document
  // from 127.0.0.1, and may give a shorter deadline). An empty `currentVersion` counts as "0".
  UpdateChecker(const QUrl& baseUrl, const QString& currentVersion, int deadlineMs = kDeadlineMs,
                QObject* parent = nullptr);

  const State& state() const { return state_; }

  // Sets `checking` at once and, when the answer or the failure comes, one of upToDate,
  // updateAvailable or failed. Never fails outward. A second call while one runs is not
  // refused: the last request to finish sets the final state.
  void checkNow();

  // Whether version `a` is above version `b`: each is split at ".", empty pieces and pieces
  // that are not base-10 integers are dropped, and the lists are compared number by number,
  // the shorter padded with zeros ("1.10" > "1.9"; "1.2" == "1.2.0"; "1.2-rc1" is "1").
  static bool isNewer(const QString& a, const QString& b);

  // The "updateCheckEnabled" setting: whether a check runs at launch; false when unset.
  static bool isCheckAtLaunchEnabled();
  static void setCheckAtLaunchEnabled(bool enabled);

  // This build's version (the project version from CMake).
  static QString currentAppVersion();

  // The translated sentence shown for a transfer that failed with `error`.
  static QString failureText(QNetworkReply::NetworkError error);

 signals:
  void stateChanged();

 private:
  void setState(State state);
  void handleReply(QNetworkReply* reply);
  State evaluate(const QByteArray& body) const;

  QNetworkAccessManager network_;
  QUrl versionCheckUrl_;
  QString currentVersion_;
  int deadlineMs_;
  State state_;
};

}  // namespace quillane

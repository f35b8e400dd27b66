#include "app/gui/CompressLaunch.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>
#include <QUrl>
#include <csignal>
#include <cstdio>
#include <exception>

#include "automation/CompressImagesIntent.h"
#include "automation/DesktopNotification.h"
#include "automation/QuillaneBusClient.h"
#include "batch/ImportedImage.h"
#include "services/Strings.h"

namespace quillane {

namespace {

const QString kShowInFolder = QStringLiteral("show-in-folder");
// How long the launch stays for the notification's "Show in folder", unless the notification
// is closed first.
constexpr int kActionWaitMs = 5 * 60 * 1000;

struct Outcome {
  QStringList outputs;
  std::optional<QString> error;
};

Outcome compressInProcess(const QStringList& files) {
  try {
    return {
        CompressImagesIntent::fromArguments(files, QStringLiteral("profileOrDefault"), 0, {}, {}).perform(),
        {}};
  } catch (const QuillaneError& error) {
    return {{}, QString::fromStdString(error.description())};
  } catch (const std::exception&) {
    return {{}, Strings::text("error.generic")};
  }
}

// The file manager's window on the written files, selected (org.freedesktop.FileManager1);
// without that service, the first file's folder opened by the desktop's default.
void showInFolder(const QDBusConnection& bus, const QStringList& outputs) {
  QStringList uris;
  // The compress action gives a written file whose path is not UTF-8 as its URL.
  for (const QString& output : outputs)
    uris.append(localFileURL(localPathBytes(output)).toString(QUrl::FullyEncoded));
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
  call << uris << QString();
  if (bus.call(call, QDBus::Block, 10000).type() == QDBusMessage::ReplyMessage) return;
  const std::string first = localPathBytes(outputs.first());
  QProcess::startDetached(QStringLiteral("xdg-open"),
                          {localFileURL(first.substr(0, first.rfind('/') + 1)).toString(QUrl::FullyEncoded)});
}

}  // namespace

// Waits for the user's answer to one notification: its action, or its closing.
class NotificationAnswer : public QObject {
  Q_OBJECT
 public:
  NotificationAnswer(const QDBusConnection& bus) : bus_(bus) {
    for (const char* signal : {"ActionInvoked", "NotificationClosed"}) {
      bus_.connect(QStringLiteral("org.freedesktop.Notifications"),
                   QStringLiteral("/org/freedesktop/Notifications"),
                   QStringLiteral("org.freedesktop.Notifications"), QString::fromLatin1(signal), this,
                   signal[0] == 'A' ? SLOT(actionInvoked(uint, QString)) : SLOT(closed(uint, uint)));
    }
  }
  // Runs the event loop until notification `id` is answered or `timeoutMs` passed; the action's key, if any.
  QString wait(uint id, int timeoutMs) {
    id_ = id;
    QTimer::singleShot(timeoutMs, this, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
    return action_;
  }

 private slots:
  void actionInvoked(uint id, const QString& action) {
    if (id != id_) return;
    action_ = action;
    QCoreApplication::quit();
  }
  void closed(uint id, uint) {
    if (id == id_) QCoreApplication::quit();
  }

 private:
  QDBusConnection bus_;
  uint id_ = 0;
  QString action_;
};

int runCompressLaunch(const QStringList& files) {
  QStringList paths;
  for (const QString& file : files)
    paths.append(file.startsWith(QLatin1String("file:")) ? file : QFileInfo(file).absoluteFilePath());

  const QDBusConnection bus = QDBusConnection::sessionBus();
  Outcome outcome;
  if (QuillaneBusClient::isRunning(bus)) {
    const auto reply = QuillaneBusClient::compress(bus, paths, QStringLiteral("profileOrDefault"), 0, {}, {});
    outcome.outputs = reply.outputs;
    if (!reply.succeeded()) outcome.error = reply.errorMessage;
  } else {
    outcome = compressInProcess(paths);
  }

  // A reader that stops early (`| head -1`) must not end the action before it reports: the files
  // are written by now, and the notification is the outcome the user waits for.
  std::signal(SIGPIPE, SIG_IGN);
  for (const QString& output : outcome.outputs) std::printf("%s\n", localPathBytes(output).c_str());
  std::fflush(stdout);

  const QString summary =
      outcome.error ? Strings::text("intents.notification.failed") : Strings::text("intents.compress.title");
  const QString folder = outcome.outputs.isEmpty()
                             ? QString()
                             : QFileInfo(QString::fromStdString(localPathBytes(outcome.outputs[0]))).path();
  const QString body =
      outcome.error ? *outcome.error : Strings::format("intents.notification.doneFormat", folder);
  const QStringList served = DesktopNotification::capabilities(bus);
  QStringList actions;
  if (!outcome.error && !outcome.outputs.isEmpty() && served.contains(QStringLiteral("actions")))
    actions = {kShowInFolder, Strings::text("intents.notification.showInFolder")};
  // Listening before the notification exists, so that no answer is missed.
  NotificationAnswer answer(bus);
  const std::optional<uint> id = DesktopNotification::notify(bus, summary, body, actions, served);
  if (!id) {
    std::fprintf(stderr, "quillane: %s: %s\n", summary.toLocal8Bit().constData(),
                 body.toLocal8Bit().constData());
  } else if (!actions.isEmpty() && answer.wait(*id, kActionWaitMs) == kShowInFolder) {
    showInFolder(bus, outcome.outputs);
  }
  return outcome.error ? 1 : 0;
}

}  // namespace quillane

#include "CompressLaunch.moc"

#include "app/gui/CompressLaunch.h"

#include <QDBusConnection>
#include <QFileInfo>
#include <cstdio>
#include <exception>

#include "automation/CompressImagesIntent.h"
#include "automation/DesktopNotification.h"
#include "automation/QuillaneBusClient.h"
#include "services/Strings.h"

namespace quillane {

namespace {

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

}  // namespace

int runCompressLaunch(const QStringList& files) {
  QStringList paths;
  for (const QString& file : files) paths.append(QFileInfo(file).absoluteFilePath());

  const QDBusConnection bus = QDBusConnection::sessionBus();
  Outcome outcome;
  if (QuillaneBusClient::isRunning(bus)) {
    const auto reply = QuillaneBusClient::compress(bus, paths, QStringLiteral("profileOrDefault"), 0, {}, {});
    outcome.outputs = reply.outputs;
    if (!reply.succeeded()) outcome.error = reply.errorMessage;
  } else {
    outcome = compressInProcess(paths);
  }

  for (const QString& output : outcome.outputs) std::printf("%s\n", output.toLocal8Bit().constData());
  std::fflush(stdout);

  const QString summary =
      outcome.error ? Strings::text("intents.notification.failed") : Strings::text("intents.compress.title");
  const QString body =
      outcome.error
          ? *outcome.error
          : Strings::format("intents.notification.doneFormat",
                            outcome.outputs.isEmpty() ? QString() : QFileInfo(outcome.outputs[0]).path());
  if (!DesktopNotification::show(bus, summary, body))
    std::fprintf(stderr, "quillane: %s: %s\n", summary.toLocal8Bit().constData(),
                 body.toLocal8Bit().constData());
  return outcome.error ? 1 : 0;
}

}  // namespace quillane

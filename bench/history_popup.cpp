// What opening the export history costs with a long history, for farm-bench to time:
//
//   history_popup COUNT [PNG]   opens the history's popup over COUNT entries (every tenth one
//                               overwritten by a later export), prints the time it took, and
//                               writes the popup's picture to PNG, to be compared
//
// bench/README.md, "Export history", has the figures.

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <cstdio>
#include <cstdlib>

#include "batch/BatchViewModel.h"
#include "records/ExportRecord.h"
#include "records/JSONFileStore.h"
#include "ui/ExportHistoryView.h"

using namespace quillane;

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: history_popup COUNT [PNG]\n");
    return 2;
  }
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  QTemporaryDir state;
  JSONFileStore::setFolderForTesting(state.path());
  const int count = std::atoi(argv[1]);
  ExportRecordList history;
  for (int i = 0; i < count; ++i) {
    const QString name = QStringLiteral("photo-%1.jpg").arg(i % (count - count / 10 + 1));
    history.push_back({QUuid::createUuid(), name, QUrl::fromLocalFile("/home/user/Pictures/small/" + name),
                       ImageFormat::jpeg, 100000 + i, ExportHistory::now() - i, std::nullopt});
  }
  ExportHistory::save(history);
  BatchViewModel::Options options;
  options.restoreSession = false;
  BatchViewModel model(options);

  QElapsedTimer opening;
  opening.start();
  auto* view = new ui::ExportHistoryView(model, true);
  view->popUp(QRect(600, 10, 20, 20));
  QCoreApplication::processEvents();
  const QPixmap shown = view->grab();  // laid out and painted
  std::printf("%d entries: opened in %.1f ms\n", int(model.exportHistory().size()),
              double(opening.nsecsElapsed()) / 1e6);
  if (argc == 3 && !shown.save(QString::fromLocal8Bit(argv[2]))) return 1;
  view->close();
  JSONFileStore::setFolderForTesting({});
  return 0;
}

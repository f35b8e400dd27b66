#pragma once
// The banner that tells what an export did, under the control bar: how many files were
// written and the bytes saved, the files written over (by name), the results that kept their
// original and the failures, with "Show in Folder" and a close button, both reached by Tab
// (Escape closes it too). It blocks nothing and stays until closed or replaced by the next
// export's. When the window is not the active one, the same news goes out as a desktop
// notification (org.freedesktop.Notifications) whose "Show in Folder" action does the same,
// and a click on which brings the window forward.
// Screen readers meet it as a notification, named by its title and described by its lines, and
// speak it as each export's summary comes to show.
//
// GUI thread only.

#include <QFrame>
#include <QList>
#include <QUrl>
#include <functional>

#include "batch/BatchExporter.h"

class QLabel;
class QPushButton;
class QToolButton;

namespace quillane::ui {

class ExportSummaryView : public QFrame {
  Q_OBJECT
 public:
  // `showInFolder` shows the files written in the file manager.
  ExportSummaryView(std::function<void(const QList<QUrl>&)> showInFolder, QWidget* parent = nullptr);

  // Shows `summary` in place of the last one, hidden and shown again; with `notify`, also as a
  // desktop notification.
  void present(const ExportSummary& summary, bool notify);
  // The summary's lines, as the banner and the notification give them.
  static QStringList lines(const ExportSummary& summary);

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private slots:
  // The notification service's ActionInvoked signal.
  void notificationAction(uint id, const QString& action);
  // Its ActivationToken signal, the window system's leave to come forward for the action.
  void notificationActivationToken(uint id, const QString& token);

 private:
  void sendNotification(const QStringList& lines);

  std::function<void(const QList<QUrl>&)> showFiles_;
  QLabel* icon_;
  QLabel* text_;
  QPushButton* showInFolder_;
  QToolButton* close_;
  QList<QUrl> written_;
  uint notificationId_ = 0;
  bool listening_ = false;
};

}  // namespace quillane::ui

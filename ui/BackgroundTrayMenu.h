#pragma once
// BackgroundTrayMenu: the menu of the tray icon while Quillane runs in the background. It
// opens the window, pauses or resumes the hot folders (the entry follows the manager's state)
// and quits. The tray icon itself belongs to the application (app/), which hands the menu the
// two calls it cannot make itself.
//
// GUI thread only. The manager must outlive the menu.

#include <QMenu>
#include <functional>

namespace quillane {
class HotFoldersManager;
}

namespace quillane::ui {

class BackgroundTrayMenu : public QMenu {
  Q_OBJECT
 public:
  BackgroundTrayMenu(HotFoldersManager& manager, std::function<void()> openWindow, std::function<void()> quit,
                     QWidget* parent = nullptr);

  // "Quillane is watching your hot folders", or that they are paused.
  QString toolTipText() const;

 signals:
  void toolTipChanged();

 private:
  void refresh();

  HotFoldersManager& manager_;
  QAction* pause_;
};

}  // namespace quillane::ui

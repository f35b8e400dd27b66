#pragma once
// BackgroundSettingsSection: the part of the hot folders pane that decides whether the folders
// keep working without the window: "Keep watching in the background" (off by default) and
// "Start at login" (the autostart entry, which runs `quillane --background`). Both are read
// from and written to BackgroundSettings at once.
//
// GUI thread only.

#include <QGroupBox>

class QCheckBox;

namespace quillane::ui {

class BackgroundSettingsSection : public QGroupBox {
  Q_OBJECT
 public:
  explicit BackgroundSettingsSection(QWidget* parent = nullptr);

 private:
  QCheckBox* keepWatching_;
  QCheckBox* startAtLogin_;
};

}  // namespace quillane::ui

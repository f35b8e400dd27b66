#pragma once
// LocalAPISettingsView: the settings tab that turns the local API on and off, shows whether
// it runs, and manages its port and token. It writes the settings and calls the controller
// directly; the controller does not watch the settings itself.
//
// GUI thread only. The controller is shared and outlives the pane.

#include <QTimer>
#include <QWidget>
#include <optional>

class QCheckBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace quillane {
class LocalAPIController;
}

namespace quillane::ui {

// A port as typed: an optional sign, then ASCII digits only, within 1...65535; else nothing.
std::optional<int> parsePortText(const QString& text);

class LocalAPISettingsView : public QWidget {
  Q_OBJECT
 public:
  explicit LocalAPISettingsView(LocalAPIController& controller, QWidget* parent = nullptr);

  // The toggle's action: store, then start or stop the server.
  void setEnabled(bool on);
  // Return in the port field: store a valid port (restarting a running server), else put the
  // stored port back.
  void applyPort();
  void copyToken();
  void regenerateToken();

 private:
  void refreshStatus();
  void refreshSections();
  void refreshBaseURL();
  static QString storedPortText();

  LocalAPIController& controller_;
  bool isEnabled_ = false;
  bool didCopyToken_ = false;
  int copyGeneration_ = 0;
  QCheckBox* enable_;
  QGroupBox* server_;
  QGroupBox* tokenBox_;
  QLabel* statusDot_;
  QLabel* status_;
  QLineEdit* port_;
  QLabel* baseURL_;
  QLabel* token_;
  QPushButton* copy_;
  QPushButton* regenerate_;
};

}  // namespace quillane::ui

#pragma once
// DesktopSession: the one process that owns the batch, with or without its window.
//
//   - Started for a window, it builds QuillaneApp and shows it at once.
//   - Started by the bus for the Compress method alone (--service), it stays headless until a
//     launch asks for the window, and ends after a quiet while if none does.
//   - Started in the background (--background, as the autostart entry does), it builds
//     QuillaneApp and the hot folders at once and shows no window until a launch asks for one.
//
// Closing the window ends the process unless it stays in the background: started with
// --background, or "Keep watching in the background" is on and a hot folder is enabled. Then
// the hot folders, the local API and the bus go on, a tray icon (where the desktop has a
// tray, or gets one within five minutes) opens the window, pauses or resumes the hot folders
// and quits, and the first time a notification says that Quillane keeps running.
//
// GUI thread only.

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <memory>

class QSystemTrayIcon;
class QWidget;

namespace quillane {

class QuillaneApp;
namespace ui {
class BackgroundTrayMenu;
}

class DesktopSession : public QObject {
  Q_OBJECT

 public:
  // Without `canShowWindow` (no display) the window is never built, and the handlers refuse.
  explicit DesktopSession(bool canShowWindow);
  ~DesktopSession() override;

  bool canShowWindow() const { return canShowWindow_; }

  // Builds the application and its window on first use, then shows and raises it.
  void showWindow();
  // showWindow, then imports the files (local file URLs) at the end of the batch in the order
  // given, as a drop.
  void open(const QList<QUrl>& files);

  // Builds the application and starts its hot folders, with no window; the process stays
  // until it is quit (tray, signal, session end).
  void startInBackground();

  // Headless: ends the process once no Compress call has run for `quietMs` and no window
  // was asked for; `busy` tells whether calls are still under way. Call idleActivity()
  // whenever the last call ends.
  void quitWhenQuiet(int quietMs, std::function<bool()> busy);

  // At quit: closes the window and stops what serves or writes files (QuillaneApp::stopServices),
  // leaving running encodes to be abandoned with the process.
  void stopForQuit();
  void idleActivity();

 private:
  QuillaneApp& app();
  bool staysInBackground() const;
  void windowClosed();
  void showTray();

  bool canShowWindow_;
  bool startedInBackground_ = false;
  int trayAttempts_ = 0;
  std::unique_ptr<QuillaneApp> app_;
  std::unique_ptr<QWidget> window_;
  std::unique_ptr<ui::BackgroundTrayMenu> trayMenu_;
  std::unique_ptr<QSystemTrayIcon> tray_;
  QTimer quietTimer_;
  std::function<bool()> busy_;
};

}  // namespace quillane

#pragma once
// DesktopSession: the one process that owns the batch, with or without its window. Started
// for a window, it builds QuillaneApp and shows it at once; started by the bus for the
// Compress method alone (--service), it stays headless until a launch asks for the window,
// and ends after a quiet while if none does.
//
// GUI thread only.

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <memory>

class QWidget;

namespace quillane {

class QuillaneApp;

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

  // Headless: ends the process once no Compress call has run for `quietMs` and no window
  // was asked for; `busy` tells whether calls are still under way. Call idleActivity()
  // whenever the last call ends.
  void quitWhenQuiet(int quietMs, std::function<bool()> busy);

  // At quit: closes the window and stops what serves or writes files (QuillaneApp::stopServices),
  // leaving running encodes to be abandoned with the process.
  void stopForQuit();
  void idleActivity();

 private:
  bool canShowWindow_;
  std::unique_ptr<QuillaneApp> app_;
  std::unique_ptr<QWidget> window_;
  QTimer quietTimer_;
  std::function<bool()> busy_;
};

}  // namespace quillane

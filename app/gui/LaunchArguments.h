#pragma once
// LaunchArguments: what `quillane` was asked to do, read from argv before any Qt application
// exists, so that --help, --version and a mistyped option are answered without a display.
//
//   quillane [FILE...]          the window, with the files
//   quillane --compress FILE... the desktop's compress action (with no argument: the window)
//   quillane --background       the hot folders, the local API and the bus, with no window
//   quillane --service          started by the bus for a call (not listed in the usage)
//   quillane -h | --help        the usage, on stdout, status 0
//   quillane --version          the version, status 0
//
// Anything else that starts with "-" is an error (the usage on stderr, status 2), except
// Qt's own options (-platform NAME, -style NAME, -reverse, ...), which QApplication takes.
// After "--" every argument is a file. Any thread; pure.

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QString>
#include <QUrl>

namespace quillane {

struct LaunchArguments {
  enum class Mode { window, compress, background, service, help, version, usageError };

  Mode mode = Mode::window;
  // The files in order, as absolute file URLs: relative paths are taken from `workingFolder`
  // (a running instance has a folder of its own), and a name that is not UTF-8 keeps its bytes.
  // A file URL, as a launcher's %U gives, is taken as the file it names.
  QList<QUrl> files;
  // The arguments that are URLs of anything but a local file (https:, smb:, a file: URL of
  // another host): left out of `files`, for a message.
  QByteArrayList notLocal;
  // The option that was not understood, for Mode::usageError.
  QByteArray unknownOption;

  static LaunchArguments parse(int argc, const char* const* argv, const QByteArray& workingFolder);

  // The usage text in the running language (needs Localization's lookup; falls back to the
  // French defaults without one).
  static QString usage();
};

}  // namespace quillane

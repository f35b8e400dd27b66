#pragma once
// `quillane --compress FILE...`, the command behind "Compress with Quillane": the files are
// compressed with the default profile's settings into its folder, or beside each file when
// no profile names a folder (a fresh install), through the running instance's Compress
// method when there is one, else in this process (no session bus, or nothing running). The
// written paths go to stdout, one a line. The outcome goes to a desktop notification, which
// after a success offers "Show in folder" (the launch stays until it is chosen or the
// notification closed, five minutes at most), or to stderr without a notification service.
//
// Needs a QCoreApplication. Returns the exit status: 0 when every file was written, 1 otherwise.

#include <QStringList>

namespace quillane {

// `files`: absolute paths or file:// URLs.
int runCompressLaunch(const QStringList& files);

}  // namespace quillane

#pragma once
// `quillane --compress FILE...`, the command behind "Compress with Quillane": the files are
// compressed with the default profile's settings into its folder, through the running
// instance's Compress method when there is one, else in this process (no session bus, or
// nothing running). The outcome goes to a desktop notification, or to stderr without a
// notification service; the written paths go to stdout, one a line.
//
// Needs a QCoreApplication. Returns the exit status: 0 when every file was written, 1 otherwise.

#include <QStringList>

namespace quillane {

int runCompressLaunch(const QStringList& files);

}  // namespace quillane

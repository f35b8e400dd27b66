// gtest main for the Qt layers: a QCoreApplication exists for the whole run, so that event
// loops, timers, queued calls and QSignalSpy work inside tests. The widget tests get a
// QApplication on the offscreen platform unless a display is given, with settings, state files
// and the runtime folder in a sandbox of the run (no window takes the size a previous run
// remembered), and the test host's marker, under which the language manager writes nothing.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#ifdef QT_WIDGETS_LIB
#include <QApplication>
#endif

int main(int argc, char** argv) {
#ifdef QT_WIDGETS_LIB
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QTemporaryDir home;
  for (const char* name : {"CONFIG", "DATA", "CACHE", "RUNTIME"}) {
    const QString folder = QDir(home.path()).filePath(QString(name).toLower());
    QDir().mkpath(folder);
    QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv(QByteArray("XDG_") + name + (name[1] == 'U' ? "_DIR" : "_HOME"), folder.toUtf8());
  }
  qputenv("XCTestConfigurationFilePath", "ui_tests");
  QApplication app(argc, argv);
#else
  QCoreApplication app(argc, argv);
#endif
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

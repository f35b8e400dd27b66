#pragma once
// The built executables started as a user would: from beside the test binary (or
// $QUILLANE_BIN_DIR), in a sandbox folder of their own, run to their end; and the small
// pictures and settings files a user hands them.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QUrl>

#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {

inline QString builtProgram(const QString& name) {
  return qEnvironmentVariable("QUILLANE_BIN_DIR", QCoreApplication::applicationDirPath()) + "/" + name;
}

// Settings, data and runtime folders in `root` (data in `root`/`data`), the offscreen platform,
// no session bus, French texts (those the assertions quote), and the test runs' marker.
inline QProcessEnvironment sandboxEnvironment(const QString& root, const QString& data = "data") {
  for (const char* folder : {"config", "runtime"}) QDir(root).mkpath(folder);
  QFile::setPermissions(root + "/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
  QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
  env.insert("QT_QPA_PLATFORM", "offscreen");
  env.insert("XDG_CONFIG_HOME", root + "/config");
  env.insert("XDG_DATA_HOME", root + "/" + data);
  env.insert("XDG_RUNTIME_DIR", root + "/runtime");
  env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + root + "/no-bus-here");
  env.insert("XCTestConfigurationFilePath", "app_tests");
  env.insert("LANGUAGE", "fr");
  env.insert("LC_ALL", "fr_FR.UTF-8");
  return env;
}

struct ProgramRun {
  int exitCode = -1;
  QByteArray out, err;
  QJsonArray json() const { return QJsonDocument::fromJson(out).array(); }
};

// Runs `program` in `folder` to its end; `stdoutFile` stands in for standard output when given.
inline ProgramRun runToEnd(const QString& program, const QStringList& arguments,
                           const QProcessEnvironment& env, const QString& folder,
                           const QString& stdoutFile = {}) {
  QProcess process;
  process.setProcessEnvironment(env);
  process.setWorkingDirectory(folder);
  if (!stdoutFile.isEmpty()) process.setStandardOutputFile(stdoutFile);
  process.start(program, arguments);
  EXPECT_TRUE(process.waitForFinished(120000)) << program.toStdString();
  return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

// Writes `bytes` to `path`, making its folder.
inline void writeFile(const QString& path, const QByteArray& bytes) {
  QDir().mkpath(QFileInfo(path).path());
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
  file.write(bytes);
}

// The first four bytes of the file at `path` (empty if it cannot be read).
inline QByteArray fileStart(const QString& path) {
  QFile file(path);
  return file.open(QIODevice::ReadOnly) ? file.read(4) : QByteArray();
}

// A 48 x 32 picture at `path`, a JPEG if the name ends in .jpg, else a PNG; gives the path.
inline QString writeSmallImage(const QString& path, Pattern pattern = Pattern::photo) {
  const DecodedImage picture = makeImage(48, 32, pattern, 3);
  writeBytes(path.toStdString(), path.endsWith(".jpg") ? fixtures::jpeg(picture) : fixtures::png(picture));
  return path;
}

// The user's export profiles in `dataHome`: one, the default, writing `format` into `folder`.
inline void saveDefaultProfile(const QString& dataHome, const QString& format, const QString& folder,
                               int quality = 70) {
  writeFile(dataHome + "/Quillane/exportProfiles.json",
            QString(R"([{"id": "6F9619FF-8B86-D011-B42D-00C04FC964FF", "name": "Web", "format": "%1",
                         "quality": %3, "destinationFolder": "%2", "isDefault": true}])")
                .arg(format, QUrl::fromLocalFile(folder).toString())
                .arg(quality)
                .toUtf8());
}

}  // namespace quillane::testing

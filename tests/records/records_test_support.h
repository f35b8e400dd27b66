#pragma once
// Every records test gets its own store folder inside a temporary folder, not yet created,
// so that the first save has to make it.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "records/JSONFileStore.h"

namespace quillane::testing {

class StoreFolderTest : public ::testing::Test {
 protected:
  void SetUp() override { JSONFileStore::setFolderForTesting(folder_); }
  void TearDown() override { JSONFileStore::setFolderForTesting({}); }

  void writeStoreFile(const QString& filename, const QByteArray& bytes) {
    ASSERT_TRUE(QDir().mkpath(folder_));
    QFile file(folder_ + QLatin1Char('/') + filename);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
  }
  QByteArray readStoreFile(const QString& filename) const {
    QFile file(folder_ + QLatin1Char('/') + filename);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  }

  QTemporaryDir temp_;
  QString folder_ = temp_.path() + QStringLiteral("/support/Quillane");
};

}  // namespace quillane::testing

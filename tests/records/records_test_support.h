#pragma once
// Shared by the records tests: every test gets its own store folder inside a temporary
// folder, not yet created, so that the first save has to make it.

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "records/JSONFileStore.h"

namespace quillane::testing {

class StoreFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(temp_.isValid());
    folder_ = temp_.path() + QStringLiteral("/support/Quillane");
    JSONFileStore::setFolderForTesting(folder_);
  }
  void TearDown() override { JSONFileStore::setFolderForTesting({}); }

  // Writes `bytes` as the store file `filename`, creating the folder.
  void writeStoreFile(const QString& filename, const QByteArray& bytes) {
    ASSERT_TRUE(QDir().mkpath(folder_));
    QFile file(folder_ + QLatin1Char('/') + filename);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write(bytes), bytes.size());
  }
  QByteArray readStoreFile(const QString& filename) const {
    QFile file(folder_ + QLatin1Char('/') + filename);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  }

  QTemporaryDir temp_;
  QString folder_;
};

}  // namespace quillane::testing

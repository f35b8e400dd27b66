// Export, history with undo, and profile operations of the model.
#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>

#include "tests/batch/batch_test_support.h"

namespace quillane::testing {
namespace {

class ExportTest : public BatchFixture {
 protected:
  QString outFolder(const QString& name = "out") {
    QDir(dir_.path()).mkpath(name);
    return dir_.filePath(name);
  }
  static QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  }
};

TEST_F(ExportTest, NamesAreKeptApartIgnoringCaseAndFailuresDoNotStopOthers) {
  auto& model = makeModel();
  import({source("a.png"), source("A.jpg"), source("bad.png", "bad"), source("a.webp")});
  ASSERT_TRUE(waitIdle());
  model.setOutputFormat(ImageFormat::png);
  ASSERT_TRUE(waitIdle());

  const QString folder = outFolder();
  const auto outcomes = model.exportAll(QUrl::fromLocalFile(folder));
  ASSERT_EQ(outcomes.size(), 4u);
  EXPECT_EQ(outcomes[0].destinationURL->fileName(), "a.png");
  EXPECT_EQ(outcomes[1].destinationURL->fileName(), "A-2.png");
  EXPECT_FALSE(outcomes[2].destinationURL);
  EXPECT_EQ(outcomes[2].errorDescription, QString::fromUtf8("Impossible de décoder l'image source."));
  EXPECT_EQ(outcomes[3].destinationURL->fileName(), "a-3.png");
  EXPECT_EQ(contentOf(folder + "/A-2.png"), QByteArray(750, 'x'));

  ASSERT_EQ(model.exportHistory().size(), 3u);  // newest first
  EXPECT_EQ(model.exportHistory()[0].sourceDisplayName, "a.webp");
  EXPECT_EQ(model.exportHistory()[0].format, ImageFormat::png);
  EXPECT_EQ(model.exportHistory()[0].sizeBytes, 750);
  EXPECT_EQ(ExportHistory::load(), model.exportHistory());
}

TEST_F(ExportTest, UnwritableFolderGivesPerRowErrorsAndNoHistory) {
  auto& model = makeModel();
  import({source("a.png"), source("b.png")});
  ASSERT_TRUE(waitIdle());
  // A path under a regular file can't be a folder, whoever runs the test.
  const QString folder = QFileInfo(source("plain-file").toLocalFile()).filePath() + "/sub";
  const auto outcomes = model.exportAll(QUrl::fromLocalFile(folder));
  ASSERT_EQ(outcomes.size(), 2u);
  for (const auto& outcome : outcomes) {
    EXPECT_FALSE(outcome.destinationURL);
    ASSERT_TRUE(outcome.errorDescription);
    EXPECT_FALSE(outcome.errorDescription->isEmpty());
    EXPECT_EQ(outcome.image->exportError(), outcome.errorDescription);
    EXPECT_EQ(outcome.image->lastExportDestination()->toLocalFile(), folder + "/" + outcome.image->baseName() + ".jpg");
  }
  EXPECT_TRUE(model.exportHistory().empty());

  // The folder comes back: the row's retry writes to the same path and clears the error.
  auto a = model.images()[0];
  QFile::remove(dir_.filePath("plain-file"));
  QDir().mkpath(folder);
  EXPECT_TRUE(model.writeExport(a, *a->compressedData(), *a->lastExportDestination()));
  EXPECT_FALSE(a->exportError());
  EXPECT_TRUE(QFile::exists(folder + "/a.jpg"));
}

TEST_F(ExportTest, ExportOverAnExistingFileReplacesItWholeAndEmptyBatchGivesNothing) {
  auto& model = makeModel();
  EXPECT_TRUE(model.exportAll(QUrl::fromLocalFile(outFolder())).empty());
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  const QString target = outFolder() + "/a.jpg";
  QFile old(target);
  ASSERT_TRUE(old.open(QIODevice::WriteOnly));
  old.write(QByteArray(5000, 'o'));
  old.close();
  EXPECT_TRUE(model.exportSingle(model.images()[0], QUrl::fromLocalFile(target)));
  EXPECT_EQ(contentOf(target), QByteArray(750, 'x'));
  EXPECT_TRUE(QDir(outFolder()).entryList(QDir::Files | QDir::Hidden).size() == 1);  // no temporary left behind
}

TEST_F(ExportTest, ExportOfAnImageWithoutBytesNamesTheEncodingFailure) {
  auto& model = makeModel();
  model.setOutputFormat(ImageFormat::jxl);
  import({source("slow.png", "slow")});
  auto image = model.images()[0];
  EXPECT_FALSE(model.exportSingle(image, QUrl::fromLocalFile(outFolder() + "/x.jxl")));
  EXPECT_EQ(image->exportError(), QString::fromUtf8("Échec de l'encodage au format JPEG XL."));
  EXPECT_FALSE(QFile::exists(outFolder() + "/x.jxl"));
}

TEST_F(ExportTest, UndoRespectsSupersedingRecords) {
  auto& model = makeModel();
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  const QUrl target = QUrl::fromLocalFile(outFolder() + "/a.jpg");
  ASSERT_TRUE(model.exportSingle(model.images()[0], target));
  QTest::qWait(5);  // dates must differ: equal dates do not supersede
  ASSERT_TRUE(model.exportSingle(model.images()[0], target));
  ASSERT_EQ(model.exportHistory().size(), 2u);
  const ExportRecord newer = model.exportHistory()[0];
  const ExportRecord older = model.exportHistory()[1];
  EXPECT_TRUE(model.isRecordSuperseded(older));
  EXPECT_FALSE(model.isRecordSuperseded(newer));

  model.undoExport(older);  // the file belongs to the newer record
  EXPECT_TRUE(QFile::exists(target.toLocalFile()));
  ASSERT_EQ(model.exportHistory().size(), 1u);
  model.undoExport(newer);
  EXPECT_FALSE(QFile::exists(target.toLocalFile()));
  EXPECT_TRUE(model.exportHistory().empty());
  EXPECT_TRUE(ExportHistory::load().empty());
  EXPECT_FALSE(model.exportError());
}

TEST_F(ExportTest, FailedDeleteKeepsTheRecordAndRaisesTheWindowError) {
  auto& model = makeModel();
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  const QString target = outFolder() + "/a.jpg";
  ASSERT_TRUE(model.exportSingle(model.images()[0], QUrl::fromLocalFile(target)));
  // Replace the file by a non-empty folder: removal fails even for root.
  QFile::remove(target);
  QDir().mkpath(target + "/inside");
  QSignalSpy errors(&model, &BatchViewModel::exportErrorChanged);
  model.undoExport(model.exportHistory()[0]);
  EXPECT_EQ(model.exportHistory().size(), 1u);
  ASSERT_TRUE(model.exportError());
  EXPECT_TRUE(model.exportError()->contains("a.jpg"));
  EXPECT_EQ(errors.count(), 1);

  // A file the user deleted meanwhile: the record just goes, with no message.
  model.setExportError(std::nullopt);
  QDir(target).removeRecursively();
  model.undoExport(model.exportHistory()[0]);
  EXPECT_TRUE(model.exportHistory().empty());
  EXPECT_FALSE(model.exportError());
}

TEST_F(ExportTest, HistoryAndProfilesSurviveARestartAndUnreadableFilesStartEmpty) {
  {
    auto& model = makeModel();
    import({source("a.png")});
    ASSERT_TRUE(waitIdle());
    ASSERT_TRUE(model.exportSingle(model.images()[0], QUrl::fromLocalFile(outFolder() + "/a.jpg")));
    model.upsertExportProfile({QUuid::createUuid(), "Web", ImageFormat::webp, 80, std::nullopt, true});
  }
  model_.reset();
  auto& model = makeModel();
  EXPECT_EQ(model.exportHistory().size(), 1u);
  ASSERT_EQ(model.exportProfiles().size(), 1u);
  EXPECT_EQ(model.exportProfiles()[0].name, "Web");
  model_.reset();

  QFile history(JSONFileStore::path("exportHistory.json"));
  ASSERT_TRUE(history.open(QIODevice::WriteOnly | QIODevice::Truncate));
  history.write("[{\"id\":");
  history.close();
  auto& again = makeModel();
  EXPECT_TRUE(again.exportHistory().empty());
  EXPECT_EQ(again.exportProfiles().size(), 1u);
}

TEST_F(ExportTest, ProfileOperationsKeepNamesUniqueAndOneDefault) {
  auto& model = makeModel();
  QSignalSpy saved(&model, &BatchViewModel::exportProfilesChanged);
  const ExportProfile web{QUuid::createUuid(), "web", ImageFormat::webp, 80, QString("/srv/out"), true};
  const ExportProfile print{QUuid::createUuid(), "Print", ImageFormat::png, 100, std::nullopt, false};
  model.upsertExportProfile(web);
  model.upsertExportProfile(print);
  model.upsertExportProfile({QUuid::createUuid(), "Web ", ImageFormat::avif, 50, std::nullopt, false});
  ASSERT_EQ(model.exportProfiles().size(), 2u);  // " Web " replaced "web" in place
  EXPECT_EQ(model.exportProfiles()[0].format, ImageFormat::avif);
  EXPECT_EQ(saved.count(), 3);

  ExportProfile printDefault = print;
  printDefault.isDefault = true;
  model.upsertExportProfile(printDefault);
  EXPECT_EQ(ExportProfiles::load(), model.exportProfiles());

  model.applyExportProfile(web);
  EXPECT_EQ(model.quality(), 80);
  EXPECT_EQ(model.outputFormat(), ImageFormat::webp);
  EXPECT_EQ(model.appliedProfileName(), "web");
  EXPECT_EQ(model.lastAppliedProfileFolder(), QUrl::fromLocalFile("/srv/out"));
  model.deleteExportProfile({model.exportProfiles()[0].id, "WEB", ImageFormat::avif, 50, std::nullopt, false});
  EXPECT_EQ(model.exportProfiles().size(), 1u);
  EXPECT_FALSE(model.appliedProfileName());
  EXPECT_EQ(model.lastAppliedProfileFolder(), QUrl::fromLocalFile("/srv/out"));  // the export panel still opens there
}

}  // namespace
}  // namespace quillane::testing

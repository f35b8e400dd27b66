// Export and the names it gives, history with undo, and the model's profile operations.
#include <sys/mount.h>
#include <unistd.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <cstring>

#include "batch/ExportFilenameAllocator.h"
#include "tests/batch/batch_test_support.h"

namespace quillane::testing {
namespace {

using ExportTest = BatchFixture;

// Each outcome's file name, or its failure's message.
QStringList destinationNames(const std::vector<ExportOutcome>& outcomes) {
  QStringList names;
  for (const auto& outcome : outcomes)
    names << outcome.destinationURL.value_or(QUrl()).fileName() + outcome.errorDescription.value_or("");
  return names;
}

TEST_F(ExportTest, NamesAreKeptApartIgnoringCaseAndFailuresDoNotStopOthers) {
  auto& model = readyModel({"a.png", "A.jpg", "bad.png", "a.webp"});
  model.setOutputFormat(ImageFormat::png);
  ASSERT_TRUE(waitIdle());

  QSignalSpy saves(&model, &BatchViewModel::exportHistoryChanged);
  auto exported = model.exportAll(QUrl::fromLocalFile(outFolder()));
  model.finishWrites();  // as at quit: written and recorded with no event loop
  ASSERT_TRUE(exported.isFinished());
  EXPECT_EQ(destinationNames(exported.result()),
            (QStringList{"a.png", "A-2.png", QString::fromUtf8("Impossible de décoder l'image source."),
                         "a-3.png"}));

  ASSERT_EQ(model.exportHistory().size(), 3u);  // newest first, in one save
  EXPECT_EQ(saves.count(), 1);
  EXPECT_EQ(model.exportHistory()[0].sourceDisplayName, "a.webp");
  EXPECT_EQ(ExportHistory::load(), model.exportHistory());
}

TEST_F(ExportTest, UnusableFolderGivesPerRowErrorsNoFilesAndNoHistory) {
  auto& model = readyModel({"a.png", "b.png"});
  // A path under a regular file can't be a folder, whoever runs the test; a folder that is
  // no local one must not fall back to the working directory.
  const QString underFile = source("plain-file").toLocalFile() + "/sub";
  for (const QUrl& folder : {QUrl(), QUrl("https://example.invalid/out"), QUrl::fromLocalFile(underFile)}) {
    for (const auto& outcome : await(model.exportAll(folder))) {
      EXPECT_FALSE(outcome.destinationURL) << folder.toString().toStdString();
      ASSERT_TRUE(outcome.errorDescription);
      EXPECT_EQ(outcome.image->exportError(), outcome.errorDescription);
      if (folder.isLocalFile()) {
        EXPECT_EQ(*outcome.errorDescription, underFile + ": Not a directory") << "names the folder";
      }
    }
    EXPECT_FALSE(QFile::exists(QDir::current().filePath("a.jpg")));
  }
  EXPECT_TRUE(model.exportHistory().empty());
  // The row's retry writes to the same path.
  EXPECT_EQ(model.images()[0]->lastExportDestination(), QUrl::fromLocalFile(underFile + "/a.jpg"));
}

TEST_F(ExportTest, ExportNeverReplacesASourceOrAHardLinkToItAndReplacesOtherFilesWhole) {
  // Into their own folder as JPEG: a.jpg is a source, so its export is a-2.jpg. Into out/,
  // where a.jpg is a hard link to that source and c.jpg a link planted towards c.png.
  auto& model = readyModel({"a.jpg", "c.png"});
  ASSERT_TRUE(QFile::link(dir_.filePath("c.png"), outFolder() + "/c.jpg") &&
              ::link(path("a.jpg").c_str(), (outFolder() + "/a.jpg").toLocal8Bit().constData()) == 0);
  EXPECT_EQ(destinationNames(await(model.exportAll(QUrl::fromLocalFile(dir_.path())))),
            (QStringList{"a-2.jpg", "c.jpg"}));
  EXPECT_EQ(contentOf(dir_.filePath("a.jpg")), "source");
  EXPECT_EQ(destinationNames(await(model.exportAll(QUrl::fromLocalFile(outFolder())))),
            (QStringList{"a-2.jpg", "c.jpg"}))
      << "a hard link to a source is that source";
  EXPECT_EQ(contentOf(outFolder() + "/a.jpg"), "source");

  // A single export onto a source goes beside it, to a free name, and the row tells where; onto
  // another file, it replaces it whole, and saved while a new quality is encoded, with that result.
  source("c-2.png", "user's");
  ASSERT_TRUE(await(model.exportSingle(model.images()[0], QUrl::fromLocalFile(dir_.filePath("c.png")))));
  EXPECT_EQ(model.images()[0]->lastExportDestination(), QUrl::fromLocalFile(dir_.filePath("c-3.png")));
  EXPECT_EQ(contentOf(dir_.filePath("c.png")), "source");
  EXPECT_EQ(contentOf(dir_.filePath("c-2.png")), "user's");
  const QString other = outFolder() + "/other.jpg";
  writeBytes(other.toStdString(), std::vector<uint8_t>(5000, 'o'));
  model.setQuality(40);
  EXPECT_TRUE(await(model.exportSingle(model.images()[0], QUrl::fromLocalFile(other))));
  EXPECT_EQ(contentOf(other), QByteArray(400, 'x'));
  // No more readable than its source, also one that is gone since its import.
  QFile::setPermissions(dir_.filePath("c.png"), QFile::ReadOwner | QFile::WriteOwner);
  QFile::remove(dir_.filePath("c.png"));
  ASSERT_TRUE(await(model.exportSingle(model.images()[1], QUrl::fromLocalFile(outFolder() + "/c.jpg"))));
  EXPECT_EQ(QFile::permissions(outFolder() + "/c.jpg") & (QFile::ReadGroup | QFile::ReadOther), 0);

  // An image still busy is reported as an encoding failure and writes nothing.
  import({source("slow.png", "slow")});
  EXPECT_FALSE(await(model.exportSingle(model.images()[2], QUrl::fromLocalFile(outFolder() + "/x.jpg"))));
  EXPECT_FALSE(QFile::exists(outFolder() + "/x.jpg"));
}

TEST_F(ExportTest, UndoRespectsSupersedingRecordsAndKeepsARecordWhoseFileWontGo) {
  auto& model = readyModel({"a.png"});
  const QString target = outFolder() + "/a.jpg";
  auto exportIt = [&] {
    ASSERT_TRUE(await(model.exportSingle(model.images()[0], QUrl::fromLocalFile(target))));
  };
  exportIt();
  exportIt();
  const ExportRecord newer = model.exportHistory().at(0);
  const ExportRecord older = model.exportHistory().at(1);
  model.undoExport(older);  // the file belongs to the newer record
  EXPECT_TRUE(QFile::exists(target));
  // The file goes to the desktop's Trash (this sandbox's), where the user can still take it back.
  const QString dataHome = dir_.filePath("data");
  const QByteArray previousDataHome = qgetenv("XDG_DATA_HOME");
  qputenv("XDG_DATA_HOME", dataHome.toUtf8());
  // As read back at a later start, its volume under another device number (a btrfs subvolume
  // gets one at each boot).
  QJsonObject stored =
      QJsonDocument::fromJson(contentOf(JSONFileStore::path("exportHistory.json")))[0].toObject();
  QJsonObject file = stored["file"].toObject();
  file["device"] = file["device"].toInteger() + 1;
  stored["file"] = file;
  ASSERT_EQ(ExportHistory::fromJson(stored).id, newer.id);
  model.undoExport(ExportHistory::fromJson(stored));
  EXPECT_FALSE(QFile::exists(target));
  EXPECT_TRUE(QFile::exists(dataHome + "/Trash/files/a.jpg"));
  EXPECT_TRUE(ExportHistory::load().empty());
  // A file edited since, or another put in its place, is the user's: only the record goes.
  for (const bool inPlace : {true, false}) {
    exportIt();
    const QByteArray edited = contentOf(target) + (inPlace ? "!" : "");
    const QString other = outFolder() + "/edited.jpg";
    writeBytes((inPlace ? target : other).toStdString(), std::vector<uint8_t>(edited.begin(), edited.end()));
    ASSERT_TRUE(inPlace || ::rename(other.toLocal8Bit().constData(), target.toLocal8Bit().constData()) == 0);
    model.undoExport(ExportHistory::load().at(0));  // as read back at a later start
    EXPECT_EQ(contentOf(target), edited) << inPlace;
    EXPECT_TRUE(model.exportHistory().empty());
  }
  // A full volume (a tmpfs of 64 KiB, filled): Qt moves the file to its Trash with an empty entry
  // there that no file manager can put back, and says it did; the file stays and so does its record.
  const QString volume = dir_.filePath("volume");
  const QByteArray mountPoint = QFile::encodeName(volume);
  QDir().mkpath(volume);
  if (::mount("tmpfs", mountPoint.constData(), "tmpfs", MS_NOSUID | MS_NODEV, "size=64k") == 0) {
    const std::unique_ptr<const QByteArray, void (*)(const QByteArray*)> unmount(
        &mountPoint, [](const QByteArray* path) { ::umount2(path->constData(), MNT_DETACH); });
    qputenv("XDG_DATA_HOME", QFile::encodeName(volume + "/data"));
    ASSERT_TRUE(await(model.exportSingle(model.images()[0], QUrl::fromLocalFile(volume + "/a.jpg"))));
    const QByteArray exported = contentOf(volume + "/a.jpg");
    QFile pad(volume + "/pad");
    ASSERT_TRUE(pad.open(QIODevice::WriteOnly));
    pad.write(QByteArray(64 << 10, 0));  // as much as fits
    pad.close();
    model.undoExport(model.exportHistory()[0]);
    EXPECT_EQ(contentOf(volume + "/a.jpg"), exported);
    EXPECT_EQ(model.exportHistory().size(), 1u);
    EXPECT_TRUE(model.exportError().value_or("").contains(std::strerror(ENOSPC)));
    model.clearExportHistory();
    model.setExportError(std::nullopt);
  }
  qputenv("XDG_DATA_HOME", previousDataHome);

  exportIt();
  QFile::remove(target);
  QDir().mkpath(target + "/inside");  // a folder in its place is not the export's: it stays
  model.undoExport(model.exportHistory()[0]);
  EXPECT_EQ(model.exportHistory().size(), 1u);
  EXPECT_TRUE(model.exportError().value_or("").contains("a.jpg"));
  // A folder that refuses the change says so (nothing refuses root).
  QDir(target).removeRecursively();
  exportIt();
  QFile::setPermissions(outFolder(), QFile::ReadOwner | QFile::ExeOwner);
  if (::geteuid() != 0) model.undoExport(model.exportHistory()[0]);
  EXPECT_TRUE(::geteuid() == 0 || model.exportError().value_or("").contains(std::strerror(EACCES)));
  QFile::setPermissions(outFolder(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
  QFile::remove(target);
  model.undoExport(model.exportHistory()[0]);

  // A file the user deleted meanwhile: the record just goes, with no message.
  model.setExportError(std::nullopt);
  QDir(target).removeRecursively();
  model.undoExport(model.exportHistory()[0]);
  EXPECT_TRUE(model.exportHistory().empty());
  EXPECT_FALSE(model.exportError());
}

TEST_F(ExportTest, ProfilesAreSavedAtEachChangeAndDeletingTheAppliedOneKeepsItsFolder) {
  const ExportProfile web{QUuid::createUuid(), "web", ImageFormat::webp, 80, QString("/srv/out"), true, {}};
  makeModel().upsertExportProfile(web);
  auto& model = makeModel();  // a new start reads it back
  ASSERT_EQ(model.exportProfiles(), ExportProfileList{web});
  model.applyExportProfile(web);
  model.deleteExportProfile({web.id, "WEB", ImageFormat::avif, 50, std::nullopt, false, {}});  // by id
  EXPECT_TRUE(ExportProfiles::load().empty());
  struct Dialogs : FileDialogs {
    std::optional<QUrl> start;
    QList<QUrl> chooseFilesToImport() override { return {}; }
    std::optional<QUrl> chooseExportFolder(const std::optional<QUrl>& folder, const QString&,
                                           const QString&) override {
      start = folder;
      return std::nullopt;
    }
    void showInFileManager(const QUrl&) override {}
  } dialogs;
  model.setFileDialogs(&dialogs);
  model.promptExportAll();
  EXPECT_EQ(dialogs.start, QUrl::fromLocalFile("/srv/out")) << "the export dialog opens there";
}

TEST(ExportFilenameAllocator, ClashesIgnoreCaseNumberFromTwoAndSkipNamesTaken) {
  const std::vector<std::pair<std::vector<std::pair<QString, QString>>, QStringList>> cases = {
      {{{"a", "png"}, {"A", "png"}, {"a", "png"}, {"a", "jpg"}}, {"a.png", "A-2.png", "a-3.png", "a.jpg"}},
      {{{"Été", "JPG"}, {"été", "jpg"}}, {"Été.JPG", "été-2.jpg"}},
      {{{"a-2", "png"}, {"a", "png"}, {"a", "png"}, {"A-3", "png"}},
       {"a-2.png", "a.png", "a-3.png", "A-3-2.png"}},
      // Within 255 bytes, a character never cut in two.
      {{{QString(251, 'n'), "webp"}, {QString(251, 'n'), "webp"}, {QString(126, u'é'), "webp"}},
       {QString(250, 'n') + ".webp", QString(248, 'n') + "-2.webp", QString(125, u'é') + ".webp"}},
  };
  for (const auto& [requests, expected] : cases) {
    ExportFilenameAllocator allocator;
    QStringList names;
    for (const auto& [base, extension] : requests) names << allocator.filename(base, extension);
    EXPECT_EQ(names, expected);
  }
}

}  // namespace
}  // namespace quillane::testing

// The model over the real engine: a generated PNG is inspected, encoded and exported, and files
// that are no image land in the failure list with the reason. A name that is not UTF-8 is read,
// exported and restored after a restart as the very same file.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "engine/ImageFormat.h"
#include "tests/batch/batch_test_support.h"
#include "tests/support/CodecFixtures.h"

namespace quillane::testing {
namespace {

using BatchEngineTest = BatchFixture;

TEST_F(BatchEngineTest, RealFilesAreInspectedEncodedAndExported) {
  const auto png = fixtures::png(makeImage(64, 48, Pattern::photo, 1));
  writeBytes(path("pattern.png"), png);
  // "café.png" in Latin-1, as an old archive or camera card names it.
  const QByteArray latin1Name = QFile::encodeName(dir_.path()) + "/caf\xe9.png";
  writeBytes(latin1Name.toStdString(), png);
  const std::string latin1Output = QFile::encodeName(dir_.path()).toStdString() + "/out/caf\xe9.jpg";
  const std::string latin1Beside = QFile::encodeName(dir_.path()).toStdString() + "/caf\xe9-2.png";
  const UnlinkAtExit oddNames{{latin1Name.toStdString(), latin1Output, latin1Beside}};
  const QUrl latin1URL = QUrl::fromEncoded("file://" + latin1Name.toPercentEncoding("/"));

  auto o = options();
  auto reads = std::make_shared<std::atomic<int>>(0);
  o.reader = [reads](const std::string& file) { return ++*reads, ImageDecoder::readSource(file); };
  o.encoder = nullptr;  // the real seams
  o.inspector = nullptr;
  o.measureResults = true;
  auto& model = makeModel(o);
  const QUrl pipe = QUrl::fromLocalFile(dir_.filePath("pipe.png"));  // not waited on
  ASSERT_EQ(::mkfifo(QFile::encodeName(pipe.toLocalFile()).constData(), 0600), 0);
  import({QUrl::fromLocalFile(dir_.filePath("pattern.png")), source("anim.gif", "GIF89a\x01\0\x01\0junk"),
          source("scan.bmp", "BM\x36\0\0\0junk"), source("notes.png", "this is not an image"),
          source("broken.png", "\x89PNG\r\n\x1a\n\0\0"), latin1URL, pipe,
          QUrl::fromLocalFile(dir_.filePath("gone.png")), QUrl::fromLocalFile(outFolder())});
  ASSERT_EQ(model.images().size(), 2u);
  auto image = model.images()[0];
  EXPECT_EQ(std::tuple(image->width(), image->height(), image->originalFormat()),
            std::tuple(64, 48, ImageFormat::png));
  // A format Quillane doesn't read says so, by name for the common ones, and offers no retry; a
  // damaged file of one of the six keeps "could not decode" and its retry, a missing one says so,
  // and so does a folder, without a retry.
  QStringList told;
  for (const ImportFailure& failure : model.importFailures())
    told << QString("%1 %2").arg(failure.canRetry).arg(failure.message);
  EXPECT_EQ(told,
            (QStringList{"0 GIF est un format que Quillane ne lit pas.",
                         "0 BMP est un format que Quillane ne lit pas.", "0 Quillane ne lit pas ce format.",
                         "1 " + QString::fromStdString(ImageProcessingError::decodingFailed().description()),
                         "1 " + QString::fromStdString(ImageProcessingError::decodingFailed().description()),
                         "1 " + QString::fromLocal8Bit(std::strerror(ENOENT)),
                         "0 " + QString::fromLocal8Bit(std::strerror(EISDIR))}));

  ASSERT_TRUE(waitIdle(20000));
  ASSERT_TRUE(image->encodeState().isReady()) << image->encodeState().message.toStdString();
  // After the size, how the result looks: its distance and its own thumbnail.
  ASSERT_TRUE(QTest::qWaitFor([&] { return image->butteraugli().has_value(); }, 20000));
  EXPECT_GT(*image->butteraugli(), 0.0);
  EXPECT_EQ(image->resultThumbnail().width, 64);
  const auto outcomes = await(model.exportAll(QUrl::fromLocalFile(outFolder())));
  ASSERT_TRUE(outcomes.at(0).destinationURL);
  const auto written = readBytes(outcomes[0].destinationURL->toLocalFile().toStdString());
  EXPECT_EQ(int64_t(written.size()), image->encodeState().sizeBytes);
  // The output keeps the source name's bytes, as the command line does.
  ASSERT_TRUE(outcomes.at(1).destinationURL);
  EXPECT_EQ(localFilePath(*outcomes[1].destinationURL), latin1Output);
  EXPECT_EQ(readBytes(latin1Output), written);
  // Taken back by the same bytes, also once the history has been saved and read again.
  ASSERT_EQ(ExportHistory::load().size(), 2u);
  model.undoExport(ExportHistory::load()[0]);
  EXPECT_FALSE(model.exportError()) << model.exportError()->toStdString();
  EXPECT_NE(::access(latin1Output.c_str(), F_OK), 0) << "removed";
  // Saved alone onto its own source by that name's bytes, it goes beside it.
  ASSERT_TRUE(await(model.exportSingle(model.images()[1], latin1URL)));
  EXPECT_EQ(localFilePath(*model.images()[1]->lastExportDestination()), latin1Beside);

  // Fitted to a smaller size, a result has no distance to its source, which is not read for one; its
  // thumbnail comes all the same.
  const int readBefore = *reads;
  model.setCompressionOptions({.maxWidth = 32});
  ASSERT_TRUE(QTest::qWaitFor(
      [&] {
        return std::ranges::all_of(model.images(),
                                   [](auto& row) { return row->resultThumbnail().width == 32; });
      },
      20000));
  EXPECT_FALSE(image->butteraugli() || model.images()[1]->butteraugli());
  EXPECT_EQ(*reads - readBefore, 2) << "the encodes' reads alone";

  auto& restarted = restart(o);
  ASSERT_EQ(restarted.images().size(), 2u);
  EXPECT_EQ(restarted.images()[1]->sourceFilePath(), latin1Name.toStdString());
}

TEST_F(BatchEngineTest, AResultNotSmallerUnderSkipLargerKeepsTheOriginalAndTheExportLeavesItOut) {
  // Re-encoded at quality 90, a JPEG of quality 95 shrinks and one of quality 20 grows. The first is
  // a phone's photo: stored landscape, turned by its orientation.
  writeBytes(path("fine.jpg"), fixtures::jpeg(texturedPhoto(320, 240), {.quality = 95, .orientation = 6}));
  writeBytes(path("coarse.jpg"), fixtures::jpeg(texturedPhoto(320, 240, 9), {.quality = 20}));
  auto o = options();
  o.reader = nullptr;
  o.encoder = nullptr;
  o.inspector = nullptr;
  auto& model = makeModel(o);
  model.setQuality(90);
  model.setCompressionOptions({.skipLarger = true});
  import({QUrl::fromLocalFile(dir_.filePath("fine.jpg")), QUrl::fromLocalFile(dir_.filePath("coarse.jpg"))});
  ASSERT_TRUE(waitIdle(20000));
  ASSERT_EQ(model.images().size(), 2u);
  const auto& images = model.images();
  for (const auto& image : images) ASSERT_TRUE(image->encodeState().isReady() && image->resultShape());

  const auto outcomes = await(model.exportAll(QUrl::fromLocalFile(outFolder())));
  ASSERT_EQ(outcomes.size(), 2u);
  EXPECT_TRUE(outcomes[0].destinationURL && !outcomes[0].keptOriginal);
  EXPECT_TRUE(outcomes[1].keptOriginal);
  EXPECT_FALSE(outcomes[1].destinationURL || outcomes[1].errorDescription);
  EXPECT_EQ(QDir(outFolder()).entryList(QDir::Files), QStringList{"fine.jpg"});
  EXPECT_FALSE(images[1]->exportError());
  EXPECT_EQ(ExportHistory::load().size(), 1u);

  // Repackaged as JPEG XL, the photo keeps its orientation in the file: its result is upright.
  model.setOutputFormat(ImageFormat::jxl);
  ASSERT_TRUE(waitIdle(20000));
  ASSERT_TRUE(images[0]->resultShape());
  EXPECT_EQ(std::pair(images[0]->resultShape()->width, images[0]->resultShape()->height),
            std::pair(240, 320));
}

}  // namespace
}  // namespace quillane::testing

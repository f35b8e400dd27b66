// What an image row shows and does (the window's painted list and its rules); the per-image quality popup.

#include "tests/ui/ui_test_support.h"
#include "ui/QualityControls.h"
#include "ui/RowRules.h"
#include "ui/SizeControls.h"

namespace quillane::uitest {
namespace {

using ui::RowHit;
using ui::RowRules::Tone;

class ImageRowTest : public WindowFixture {
 protected:
  std::shared_ptr<ImportedImage> importOne(const QString& name, int64_t bytes, FakeFile file) {
    if (!model_) makeModel();
    import({source(name, bytes, file)});
    EXPECT_TRUE(waitIdle());
    return model_->images().back();
  }
  ui::ImageListView& list() { return *imageList(); }
  QModelIndex rowOf(const std::shared_ptr<ImportedImage>& image) {
    for (int row = 0; row < list().listModel().rowCount(); ++row)
      if (list().listModel().imageAt(row) == image) return list().listModel().index(row);
    return {};
  }
};

TEST_F(ImageRowTest, AnAnimatedImageInItsOwnFormatIsPassedThroughAndAStillOneNever) {
  auto gif = importOne("anim.webp", 50'000, {200, 200, ImageFormat::webp, 8, 50'000});
  auto still = importOne("still.webp", 50'000, {200, 200, ImageFormat::webp, 1, 20'000});
  EXPECT_FALSE(ui::RowRules::isPassThrough(*still, ImageFormat::webp));
  EXPECT_EQ(ui::RowRules::sizeSummary(*gif, ImageFormat::webp).secondTone, Tone::secondary);
  EXPECT_NE(ui::RowRules::qualityHelp(*gif, ImageFormat::webp),
            ui::RowRules::qualityHelp(*gif, ImageFormat::jpeg));
  // Converted to another format it shows the percentage again.
  EXPECT_EQ(ui::RowRules::sizeSummary(*gif, ImageFormat::jpeg).secondTone, Tone::green);
  // A result that grew shows its change in orange; under skip-larger the original is kept, the
  // row says so at the original's size and the total counts it so.
  auto grown = importOne("grown.png", 1000, {100, 100, ImageFormat::png, 1, 1300});
  EXPECT_EQ(ui::RowRules::sizeSummary(*grown, ImageFormat::jpeg).secondTone, Tone::orange);
  useLanguage("en-US");
  model_->setCompressionOptions({.maxWidth = 100, .skipLarger = true});
  ASSERT_TRUE(waitIdle());
  const auto kept = ui::RowRules::sizeSummary(*grown, ImageFormat::jpeg);
  EXPECT_EQ(std::pair(kept.firstLine, kept.secondLine),
            std::pair(QString("1 kB"), QString("kept the original")));
  EXPECT_EQ(ui::RowRules::shapeText(*grown), "kept the original");
  EXPECT_EQ(ui::RowRules::shapeText(*still), "fitted to 100 × 100");
  EXPECT_TRUE(ui::RowRules::batchTotalText({grown}).contains("after 1 kB"))
      << ui::RowRules::batchTotalText({grown}).toStdString();
  useLanguage({});
}

TEST_F(ImageRowTest, ExportFollowsTheBytesAndFailedEncodesAndExportsRetryFromTheirRow) {
  auto image = importOne("a.png", 1000, {});
  model_->scheduleEncode(image, true);  // encoding again, the old bytes are kept
  EXPECT_TRUE(delegate(list()).isEnabled(rowOf(image), RowHit::exportButton));
  EXPECT_TRUE(spoken(list(), rowOf(image).row()).contains(Strings::text("comparison.encoding")));
  ASSERT_TRUE(waitIdle());

  auto bad = importOne("bad.png", 1000, {100, 100, ImageFormat::png, 1, -1, true});
  EXPECT_FALSE(delegate(list()).isEnabled(rowOf(bad), RowHit::exportButton));
  EXPECT_TRUE(spoken(list(), rowOf(bad).row()).endsWith(", " + bad->encodeState().message))
      << "why, not Retry";
  list().activate(rowOf(bad), RowHit::summaryRetry);
  EXPECT_TRUE(bad->encodeState().isEncoding());
  ASSERT_TRUE(waitIdle());

  // A failed export's warning button writes again to the failed destination.
  const QString folder = dir_.filePath("gone");
  const QUrl target = QUrl::fromLocalFile(folder + "/a.jpg");
  EXPECT_FALSE(await(model_->exportSingle(image, target)));
  const QModelIndex index = rowOf(image);
  const QRect warning = delegate(list()).partRect(list().visualRect(index), index, RowHit::warning);
  EXPECT_EQ(list().partAt(warning.center()).second, RowHit::warning);

  QDir().mkpath(folder);  // the folder has come back
  list().activate(index, RowHit::warning);
  EXPECT_TRUE(QTest::qWaitFor([&] { return !image->exportError().has_value(); }, 5000));
  EXPECT_TRUE(QFile::exists(folder + "/a.jpg"));
}

TEST_F(ImageRowTest, DismissTouchesOnlyItsOwnFailureRowAndAFormatNotReadOffersNoRetry) {
  makeModel();
  const QUrl gif = BatchFixture::source("anim.gif", "GIF89a");
  inspectAs("anim.gif", {.fail = true});  // as the engine's inspection of a GIF
  ASSERT_TRUE(settle({url("missing1.png"), source("a.png"), url("missing2.png"), gif}));
  ASSERT_EQ(model_->importFailures().size(), 3u);
  const QModelIndex foreign = list().listModel().index(3);
  EXPECT_FALSE(delegate(list()).isEnabled(foreign, RowHit::failureRetry));
  EXPECT_TRUE(delegate(list()).isEnabled(list().listModel().index(2), RowHit::failureRetry));
  EXPECT_EQ(std::unique_ptr<QMenu>(list().rowMenu(foreign))->actions().size(), 1) << "dismiss only";
  const QUuid second = model_->importFailures()[1].id;
  list().activate(list().listModel().index(1), RowHit::failureDismiss);
  ASSERT_EQ(model_->importFailures().size(), 2u);
  EXPECT_EQ(model_->importFailures()[0].id, second);

  // The keys keep their place as failures come and go: on their image while one is added, and
  // Delete goes on to the next failure, as it does from image to image.
  list().setCurrentIndex(list().listModel().index(list().listModel().rowOfImage(0)));
  ASSERT_TRUE(settle({url("missing3.png")}));
  EXPECT_TRUE(list().listModel().imageAt(list().currentIndex().row()) == model_->images()[0]);
  list().setCurrentIndex(list().listModel().index(1));
  QTest::keyClick(&list(), Qt::Key_Delete);
  QTest::keyClick(&list(), Qt::Key_Delete);
  ASSERT_EQ(model_->importFailures().size(), 1u);
  EXPECT_EQ(model_->importFailures()[0].url, url("missing3.png"));
}

TEST_F(ImageRowTest, TheRowSaysWhenItHasItsOwnQualityAndWhenJPEGWhitensItsTransparency) {
  auto clear = importOne("clear.png", 1000, {.transparent = true});
  auto opaque = importOne("opaque.png", 1000, {});
  model_->setQualityOverride(opaque, 40);
  const auto notes = [](const ImportedImage& image, ImageFormat format) {
    QStringList texts;
    for (const auto& note : ui::RowRules::notes(image, format)) texts << note.text;
    return texts;
  };
  EXPECT_EQ(notes(*clear, ImageFormat::jpeg), QStringList{"La transparence devient blanche"});
  EXPECT_EQ(notes(*clear, ImageFormat::webp), QStringList());
  EXPECT_EQ(notes(*opaque, ImageFormat::jpeg), QStringList{"Qualité propre 40"});
  // A screen reader hears them with the rest of the row.
  EXPECT_TRUE(spoken(list(), rowOf(clear).row()).contains("transparence"));
  ASSERT_TRUE(waitIdle());
}

class QualityPopupTest : public ImageRowTest {};

TEST_F(QualityPopupTest, ADragChangesNothingUntilReleasedAClickMakesNoOverrideAndRevertFollowsTheBatch) {
  auto image = importOne("a.png", 100'000, {});
  ui::QualityOverridePopup popup(*model_, image);
  popup.popUp(QRect(20, 20, 26, 26));
  QSlider* slider = control<QSlider>(&popup, "quality.overrideTitle");
  EXPECT_EQ(QApplication::focusWidget(), slider) << "the keys move the quality at once";
  slider->setSliderDown(true);
  slider->setSliderDown(false);
  EXPECT_FALSE(image->qualityOverride().has_value());
  slider->setSliderDown(true);
  slider->setSliderPosition(40);  // the finger moves
  EXPECT_FALSE(image->qualityOverride().has_value());
  slider->setSliderDown(false);  // released
  EXPECT_EQ(image->qualityOverride(), 40);
  // A turn of the wheel over the slider, and a value a screen reader sets, are edits of their own.
  const QPointF middle(slider->width() / 2.0, slider->height() / 2.0);
  QWheelEvent wheel(middle, slider->mapToGlobal(middle), {}, {0, 120}, Qt::NoButton, Qt::NoModifier,
                    Qt::NoScrollPhase, false);
  QApplication::sendEvent(slider, &wheel);
  EXPECT_TRUE(slider->value() > 40 && image->qualityOverride() == slider->value()) << slider->value();
  QAccessible::queryAccessibleInterface(slider)->valueInterface()->setCurrentValue(55);
  EXPECT_EQ(image->qualityOverride(), 55);
  ASSERT_TRUE(waitIdle());

  // Revert follows the global quality again.
  model_->setQualityOverride(image, 30);
  ASSERT_TRUE(waitIdle());
  model_->setQuality(72.6);  // from the local API while the popup is open
  EXPECT_TRUE(control<QLabel>(&popup, QString("30"))->isVisible());  // the readout
  // By its access key, as the popup's other controls have theirs.
  QPushButton* revert = control<QPushButton>(&popup, Strings::format("quality.revertFormat", 72));
  QTest::keySequence(&popup, QKeySequence::mnemonic(revert->text()));
  EXPECT_TRUE(QTest::qWaitFor([&] { return !image->qualityOverride().has_value(); }));  // a click shown
  EXPECT_TRUE(control<QLabel>(&popup, "quality.followingGlobal")->isVisible());
  EXPECT_EQ(slider->value(), 72);
  ASSERT_TRUE(waitIdle());

  // The image's own size options: an edit makes them its own, the batch's stay, and the link
  // follows the batch's again.
  model_->setCompressionOptions({.maxBytes = 500'000});
  EXPECT_TRUE(control<QCheckBox>(&popup, "size.budgetToggle")->isChecked()) << "the batch's while following";
  QPushButton* sizeRevert = control<QPushButton>(&popup, "size.revertToBatch");
  EXPECT_FALSE(sizeRevert->isVisible());
  control<QCheckBox>(&popup, "size.fitToggle")->setChecked(true);
  EXPECT_EQ(image->sizingOverride(),
            (CompressionOptions{.maxWidth = 1920, .maxHeight = 1920, .maxBytes = 500'000}));
  EXPECT_EQ(model_->compressionOptions(), (CompressionOptions{.maxBytes = 500'000}));
  EXPECT_TRUE(sizeRevert->isVisible());
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(image->resultShape()->sizing, *image->sizingOverride()) << "the image's own options encoded";
  sizeRevert->click();
  EXPECT_FALSE(image->sizingOverride());
  ASSERT_TRUE(waitIdle());
}

}  // namespace
}  // namespace quillane::uitest

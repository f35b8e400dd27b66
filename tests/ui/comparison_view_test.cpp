// The comparison window: zoom, pan and divider by mouse, wheel and keys, both halves in
// register, its size on screen and across openings, and the result side following the quality.

#include "services/SettingsFile.h"
#include "tests/support/TestImages.h"
#include "tests/ui/ui_test_support.h"
#include "ui/ComparisonView.h"
#include "ui/RowRules.h"
#include "ui/UiText.h"

namespace quillane::uitest {
namespace {

// 16-pixel blocks of colours, with a transparent band: halving it loses nothing.
QImage blocks(int width, int height, int block) {
  QImage image(width, height, QImage::Format_RGBA8888);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const int bx = x / block, by = y / block;
      image.setPixelColor(
          x, y, QColor((bx * 37) % 256, (by * 59) % 256, ((bx + by) * 23) % 256, by % 5 == 2 ? 0 : 255));
    }
  return image;
}

class ComparisonArea : public UiFixture {
 protected:
  // A 400 x 300 area over a 1600 x 1200 picture: the original from a half-size preview, the result in full.
  ui::SplitCompareWidget& area() {
    makeModel();
    import({source("a.png", 100000, {1600, 1200})});
    area_ = std::make_unique<ui::SplitCompareWidget>(*model_, model_->images()[0]);
    area_->resize(400, 300);
    area_->show();
    const QImage full = blocks(1600, 1200, 16);
    area_->setOriginalPreview({blocks(800, 600, 8), {}});
    area_->setCompressedPreview(ui::SidePictures{full, full});
    return *area_;
  }
  // The area's pixels with the divider at `fraction`, less a margin for the badges and the divider's handle.
  QImage render(double fraction) {
    area_->setSliderFraction(fraction);
    return area_->grab().toImage().copy(QRect(60, 70, 280, 160));
  }
  std::unique_ptr<ui::SplitCompareWidget> area_;
};

TEST_F(ComparisonArea, ZoomKeysWheelAndDragKeepBothHalvesShowingTheSameRegion) {
  ui::SplitCompareWidget& a = area();
  struct Step {
    int key;
    std::optional<double> zoom;
  } const steps[] = {{Qt::Key_1, 1.0},    {Qt::Key_Plus, 2.0},  {Qt::Key_Equal, 4.0},
                     {Qt::Key_Plus, 4.0}, {Qt::Key_Minus, 2.0}, {Qt::Key_0, std::nullopt},
                     {Qt::Key_4, 4.0},    {Qt::Key_Minus, 2.0}};
  for (const Step& s : steps) {
    QTest::keyClick(&a, Qt::Key(s.key));
    EXPECT_EQ(a.zoom(), s.zoom) << QKeySequence(s.key).toString().toStdString();
  }
  EXPECT_DOUBLE_EQ(a.shownFactor(), 2.0);

  // Ctrl and the wheel zoom around the pointer: the picture point under it stays there.
  const QPointF pointer(300, 80);
  const QPointF before = a.centre() + (pointer - QPointF(200, 150)) / (2.0 / a.devicePixelRatioF());
  QWheelEvent wheel(pointer, a.mapToGlobal(pointer), {}, {0, 120}, Qt::NoButton, Qt::ControlModifier,
                    Qt::NoScrollPhase, false);
  QApplication::sendEvent(&a, &wheel);
  const QPointF after = a.centre() + (pointer - QPointF(200, 150)) / (4.0 / a.devicePixelRatioF());
  EXPECT_NEAR(after.x(), before.x(), 1e-9);
  EXPECT_NEAR(after.y(), before.y(), 1e-9);

  // A drag away from the divider pans; Ctrl and an arrow too; never past the picture's edge.
  const QPointF centre = a.centre();
  sendMouse(&a, QEvent::MouseButtonPress, {50, 50});
  sendMouse(&a, QEvent::MouseMove, {10, 30});
  sendMouse(&a, QEvent::MouseButtonRelease, {10, 30});
  EXPECT_EQ(a.centre(), centre + QPointF(40, 20) / (4.0 / a.devicePixelRatioF()));
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.5);
  for (int i = 0; i < 200; ++i) QTest::keyClick(&a, Qt::Key_Right, Qt::ControlModifier);
  EXPECT_DOUBLE_EQ(a.centre().x(), 1600 - a.width() / 2.0 / (4.0 / a.devicePixelRatioF()))
      << "the right edge";

  // At any zoom and pan the original (from its half-size preview) and the result cover each other exactly.
  for (const double zoom : {4.0, 2.0, 1.0}) {
    a.setZoom(zoom);
    a.panBy({-37, 23});
    EXPECT_EQ(render(0.0), render(1.0)) << zoom;
  }
}

TEST_F(ComparisonArea, TheDividerFollowsTheMouseAndTheKeysAndIsASliderForScreenReaders) {
  ui::SplitCompareWidget& a = area();
  sendMouse(&a, QEvent::MouseButtonPress, {100, 150});
  sendMouse(&a, QEvent::MouseMove, {200, 150});  // the picture fills the area: its middle
  sendMouse(&a, QEvent::MouseButtonRelease, {200, 150});
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.5);

  QTest::keyClick(&a, Qt::Key_Right);
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.52);
  QTest::keyClick(&a, Qt::Key_Left, Qt::ShiftModifier);
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.42);
  QTest::keyClick(&a, Qt::Key_PageDown);
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.32);
  for (int i = 0; i < 7; ++i) QTest::keyClick(&a, Qt::Key_Right, Qt::ShiftModifier);
  QTest::keyClick(&a, Qt::Key_PageUp);
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 1.0);
  QTest::keyClick(&a, Qt::Key_Home);
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.0);
  QTest::keyClick(&a, Qt::Key_End);

  QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&a);
  ASSERT_NE(accessible, nullptr);
  EXPECT_EQ(accessible->role(), QAccessible::Slider);
  EXPECT_FALSE(accessible->text(QAccessible::Name).isEmpty());
  ASSERT_NE(accessible->valueInterface(), nullptr);
  EXPECT_EQ(accessible->valueInterface()->currentValue().toInt(), 100);
  accessible->valueInterface()->setCurrentValue(25);
  EXPECT_DOUBLE_EQ(a.sliderFraction(), 0.25);
}

// A badge too narrow for its size line breaks it at its " · " rather than cutting its end off.
TEST_F(ComparisonArea, ABadgeTooNarrowForItsSizeLineBreaksIt) {
  ui::SplitCompareWidget& a = area();
  a.resize(300, 100);
  const QStringList lines = a.badgeText(true).detailLines;
  EXPECT_TRUE(lines.size() == 2 && lines[1] == ui::formatByteCount(100000) &&
              !lines[0].contains(QChar(0x2026)))
      << lines.join('|').toStdString();
}

class ComparisonWindow : public UiFixture {
 protected:
  void SetUp() override {
    UiFixture::SetUp();
    SettingsFile::store()->remove("comparison/geometry");
    makeModel();
  }
  ui::ImageComparisonView* open(int index) {
    auto* view = new ui::ImageComparisonView(*model_, model_->images()[index]);
    view->show();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(view));
    return view;
  }
};

// Runs at the screen's own scale and, in a ctest of its own, at a scale factor of 2.
TEST_F(ComparisonWindow, OpensInsideTheScreenIsMaximisableAndKeepsItsSizeForNextTime) {
  import({source("huge.png", 100000, {8000, 6000}), source("small.png", 5000, {120, 90})});
  ui::ImageComparisonView* view = open(0);
  const QRect available = view->screen()->availableGeometry();
  EXPECT_TRUE(available.contains(view->geometry())) << available.width() << "x" << available.height();
  EXPECT_LE(view->width(), available.width() * 0.9 + 1);
  EXPECT_TRUE(view->windowFlags() & Qt::WindowMaximizeButtonHint);
  const QString percent = Strings::format("comparison.zoomPercentFormat", 200);
  auto* button = control<QToolButton>(view, Strings::format("comparison.zoomToFormat", percent));
  EXPECT_TRUE(button->toolTip().contains("2"));
  // One zoom of several, a radio button for screen readers, which press it.
  QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(button);
  EXPECT_EQ(spoken->role(), QAccessible::RadioButton);
  spoken->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
  EXPECT_EQ(view->area()->zoom(), 2.0);
  EXPECT_TRUE(spoken->state().checked && !control<QToolButton>(view, "comparison.zoomFitName")->isChecked());

  const QSize chosen = (available.size() * 0.6).expandedTo(view->minimumSizeHint());
  view->resize(chosen);
  view->close();
  ui::ImageComparisonView* next = open(1);
  EXPECT_EQ(next->size(), chosen);
  EXPECT_TRUE(available.contains(next->geometry()));
  ASSERT_TRUE(QTest::qWaitForWindowActive(next));
  const QPointer closing(next);
  QTest::keyClick(next, Qt::Key_W, Qt::ControlModifier);
  EXPECT_TRUE(QTest::qWaitFor([&] { return !closing; }));
}

TEST_F(ComparisonWindow, TheResultSideFollowsAQualityChangeAtFullResolution) {
  BatchViewModel::Options o;
  o.restoreSession = false;
  o.debounce = std::chrono::milliseconds(10);
  model_ = std::make_unique<BatchViewModel>(o);
  const QString path = dir_.filePath("wide.png");
  // Wider than any fit's picture: a zoom to 100 % needs the full resolution.
  ASSERT_TRUE(ui::toQImage(testing::makeImage(2000, 200, testing::Pattern::photo, 3)).save(path));
  model_->setOutputFormat(ImageFormat::jpeg);
  model_->setQuality(90);
  ASSERT_TRUE(settle({QUrl::fromLocalFile(path)}, 20000));
  ui::ImageComparisonView* view = open(0);
  ui::SplitCompareWidget* area = view->area();
  area->setSliderFraction(0);
  area->setZoom(4.0);
  ASSERT_TRUE(QTest::qWaitFor([&] { return area->hasFullResolution(); }, 20000));
  // The middle of the area: the picture alone, away from the badges.
  const auto picture = [area] {
    const int x = area->width() / 4, y = area->height() / 4;
    return area->grab(area->rect().adjusted(x, y, -x, -y)).toImage();
  };
  const QImage sharp = picture();

  model_->setQuality(5);
  ASSERT_TRUE(waitIdle(20000));
  EXPECT_TRUE(QTest::qWaitFor([&] { return picture() != sharp; }, 20000));
  EXPECT_TRUE(area->hasFullResolution());
  // Once measured, the result's badge names the distance with the row's word.
  const auto& image = *model_->images()[0];
  ASSERT_TRUE(QTest::qWaitFor([&] { return image.butteraugli().has_value(); }, 20000));
  const QString badge = area->badgeText(false).detailLines.join(' ');
  EXPECT_TRUE(badge.contains(ui::RowRules::look(image).word) &&
              badge.contains(ui::RowRules::distanceText(*image.butteraugli())))
      << badge.toStdString();
  // Back at fit, the full pictures are let go.
  area->setZoom(std::nullopt);
  EXPECT_TRUE(
      QTest::qWaitFor([&] { return !area->hasFullResolution() && area->hasOriginalPreview(); }, 20000));
  view->close();
}

}  // namespace
}  // namespace quillane::uitest

// Texts and measures computed for display: file sizes, the size change, the comparison area,
// and the order of dropped files.
#include <gtest/gtest.h>

#include <QLocale>
#include <QMimeData>
#include <QSignalSpy>
#include <QTest>
#include <thread>

#include "ui/ComparisonView.h"
#include "ui/FileDropHandler.h"
#include "ui/UiText.h"

namespace quillane::ui {
namespace {

TEST(ByteCountText, DecimalUnitsWithOneDecimalForMegabytes) {
  const QLocale c(QLocale::C);
  EXPECT_EQ(formatByteCount(0, c), "0 B");
  EXPECT_EQ(formatByteCount(999, c), "999 B");
  EXPECT_EQ(formatByteCount(1000, c), "1 kB");
  EXPECT_EQ(formatByteCount(12'499, c), "12 kB");
  EXPECT_EQ(formatByteCount(1'234'567, c), "1.2 MB");
  EXPECT_EQ(formatByteCount(3'000'000, c), "3 MB");
  EXPECT_EQ(formatByteCount(3'456'789'000, c), "3.46 GB");
  EXPECT_EQ(formatByteCount(-5, c), "0 B");
}

TEST(ByteCountText, RoundingUpMovesToTheNextUnit) {
  const QLocale c(QLocale::C);
  EXPECT_EQ(formatByteCount(999'600, c), "1 MB");
  EXPECT_EQ(formatByteCount(999'960'000, c), "1 GB");
}

TEST(ByteCountText, FollowsTheLocaleDecimalSeparator) {
  EXPECT_EQ(formatByteCount(1'234'567, QLocale(QLocale::French)), "1,2 MB");
  EXPECT_EQ(formatByteCount(1'234'567, QLocale(QLocale::German)), "1,2 MB");
}

TEST(SizeChangeRounding, HalvesRoundAwayFromZero) {
  // 0.4 % smaller shows 0, 0.5 % shows 1.
  EXPECT_EQ(sizeChange(996, 1000).percent, 0);
  EXPECT_EQ(sizeChange(995, 1000).percent, 1);
  EXPECT_TRUE(sizeChange(995, 1000).reduced);
  EXPECT_EQ(sizeChange(1005, 1000).percent, 1);
  EXPECT_FALSE(sizeChange(1005, 1000).reduced);
}

TEST(SizeChangeRounding, SameSizeIsAReductionOfZero) {
  const SizeChange same = sizeChange(5000, 5000);
  EXPECT_TRUE(same.reduced);
  EXPECT_EQ(same.percent, 0);
}

TEST(SizeChangeRounding, GrowthIsPositiveAndAnEmptySourceDoesNotDivideByZero) {
  EXPECT_EQ(sizeChange(3000, 1000).percent, 200);
  EXPECT_FALSE(sizeChange(3000, 1000).reduced);
  const SizeChange fromZero = sizeChange(10, 0);
  EXPECT_FALSE(fromZero.reduced);
  EXPECT_EQ(fromZero.percent, 900);
  EXPECT_TRUE(sizeChange(0, 0).reduced);
}

TEST(SizeChangeRounding, TextsCarryTheSignAndThePercentage) {
  EXPECT_TRUE(sizeChangeText({40, true}).contains("40"));
  EXPECT_TRUE(sizeChangeText({40, true}).contains("%"));
  EXPECT_FALSE(sizeChangeText({40, true}).contains("%%"));
  EXPECT_NE(sizeChangeText({40, true}), sizeChangeText({40, false}));
}

TEST(ComparisonArea, FitsTheFrameAtThePicturesAspect) {
  const QSizeF panorama = ComparisonGeometry::areaSize(6000, 1000);
  EXPECT_DOUBLE_EQ(panorama.width(), 760.0);
  EXPECT_NEAR(panorama.height(), 126.67, 0.01);
  const QSizeF portrait = ComparisonGeometry::areaSize(1000, 6000);
  EXPECT_NEAR(portrait.width(), 86.67, 0.01);
  EXPECT_DOUBLE_EQ(portrait.height(), 520.0);
  const QSizeF noHeight = ComparisonGeometry::areaSize(300, 0);
  EXPECT_DOUBLE_EQ(noHeight.width(), 520.0);
  EXPECT_DOUBLE_EQ(noHeight.height(), 520.0);
}

TEST(ComparisonArea, DragsPastTheEdgesHoldTheDivider) {
  EXPECT_DOUBLE_EQ(*ComparisonGeometry::fractionAt(-40, 400), 0.0);
  EXPECT_DOUBLE_EQ(*ComparisonGeometry::fractionAt(900, 400), 1.0);
  EXPECT_DOUBLE_EQ(*ComparisonGeometry::fractionAt(100, 400), 0.25);
  EXPECT_FALSE(ComparisonGeometry::fractionAt(10, 0).has_value());
}

// A provider answering on a thread of its own after a delay, to shuffle answer order.
class DelayedProvider : public DropItemProvider {
 public:
  DelayedProvider(QVariant item, int delayMs, bool file = true)
      : item_(std::move(item)), delayMs_(delayMs), file_(file) {}
  bool hasFileURL() const override { return file_; }
  void loadItem(std::function<void(const QVariant&)> answer) override {
    std::thread([item = item_, delay = delayMs_, answer] {
      std::this_thread::sleep_for(std::chrono::milliseconds(delay));
      answer(item);
    }).detach();
  }

 private:
  QVariant item_;
  int delayMs_;
  bool file_;
};

QList<QUrl> runDrop(const DropItemProviders& providers, bool* accepted) {
  std::optional<QList<QUrl>> result;
  *accepted = FileDropHandler::handle(providers, [&](QList<QUrl> urls) { result = urls; });
  if (*accepted) {
    EXPECT_TRUE(QTest::qWaitFor([&] { return result.has_value(); }, 3000));
  }
  return result.value_or(QList<QUrl>());
}

TEST(FileDrop, KeepsTheOrderOfTheDragWhateverOrderTheAnswersCome) {
  const QUrl a = QUrl::fromLocalFile("/tmp/a.png"), b = QUrl::fromLocalFile("/tmp/b.png"),
             c = QUrl::fromLocalFile("/tmp/c.png");
  bool accepted = false;
  // c answers first, a last; data and URL items alike.
  const QList<QUrl> urls = runDrop(
      {std::make_shared<DelayedProvider>(QVariant(a.toEncoded()), 120),
       std::make_shared<DelayedProvider>(QVariant(b), 60), std::make_shared<DelayedProvider>(QVariant(c), 0)},
      &accepted);
  EXPECT_TRUE(accepted);
  EXPECT_EQ(urls, (QList<QUrl>{a, b, c}));
}

TEST(FileDrop, ItemsThatAreNoFilesOrCannotBeReadAreLeftOut) {
  const QUrl a = QUrl::fromLocalFile("/tmp/a.png"), b = QUrl::fromLocalFile("/tmp/b.png");
  bool accepted = false;
  const QList<QUrl> urls = runDrop(
      {std::make_shared<DelayedProvider>(QVariant(a), 0),
       std::make_shared<DelayedProvider>(QVariant(QUrl("https://x.test/")), 0, false),
       std::make_shared<DelayedProvider>(QVariant(), 10), std::make_shared<DelayedProvider>(QVariant(b), 5)},
      &accepted);
  EXPECT_TRUE(accepted);
  EXPECT_EQ(urls, (QList<QUrl>{a, b}));
}

TEST(FileDrop, ADropWithoutFilesIsDeclinedAndNeverCompletes) {
  bool called = false;
  EXPECT_FALSE(FileDropHandler::handle(
      {std::make_shared<DelayedProvider>(QVariant(QUrl("https://x.test/")), 0, false)},
      [&](QList<QUrl>) { called = true; }));
  EXPECT_FALSE(FileDropHandler::handle({}, [&](QList<QUrl>) { called = true; }));
  QTest::qWait(30);
  EXPECT_FALSE(called);
}

TEST(FileDrop, MimeDataGivesOneProviderPerURLAndOnlyLocalFilesConform) {
  QMimeData mime;
  mime.setUrls(
      {QUrl::fromLocalFile("/tmp/x.png"), QUrl("https://x.test/y.png"), QUrl::fromLocalFile("/tmp/folder")});
  const DropItemProviders providers = FileDropHandler::providers(mime);
  ASSERT_EQ(providers.size(), 3u);
  EXPECT_TRUE(providers[0]->hasFileURL());
  EXPECT_FALSE(providers[1]->hasFileURL());
  EXPECT_TRUE(providers[2]->hasFileURL());
  EXPECT_TRUE(FileDropHandler::carriesFiles(mime));
  QMimeData web;
  web.setUrls({QUrl("https://x.test/y.png")});
  EXPECT_FALSE(FileDropHandler::carriesFiles(web));
}

}  // namespace
}  // namespace quillane::ui

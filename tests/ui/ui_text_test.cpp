// Texts and measures computed for display: sizes, the size change, the comparison area, dropped files' order.
#include <gtest/gtest.h>

#include <QLocale>
#include <QMimeData>
#include <QTest>
#include <thread>

#include "engine/Localization.h"
#include "services/LanguageManager.h"
#include "ui/ComparisonGeometry.h"
#include "ui/FileDropHandler.h"
#include "ui/UiText.h"

namespace quillane::ui {
namespace {

TEST(ByteCountText, DecimalUnitsRoundedUpToTheNextUnitInTheLocalesNotationAndSymbols) {
  const QLocale c(QLocale::C);
  const std::pair<int64_t, const char*> cases[] = {
      {-5, "0 B"},       {999, "999 B"},        {1'234'567, "1.2 MB"}, {3'456'789'000, "3.46 GB"},
      {999'600, "1 MB"}, {999'960'000, "1 GB"},  // rounding up moves to the next unit
  };
  for (const auto& [bytes, text] : cases) EXPECT_EQ(formatByteCount(bytes, c), text) << bytes;
  EXPECT_EQ(formatByteCount(1'234'567, QLocale(QLocale::French)), "1,2 Mo");
  EXPECT_EQ(formatByteCount(999, QLocale(QLocale::Russian)), "999 Б");
  // A budget keeps the tenth it was set to, in the same notation.
  const QLocale before;
  QLocale::setDefault(QLocale(QLocale::French));
  EXPECT_EQ(formatByteLimit(2'500'000), "2,5 Mo");
  EXPECT_EQ(formatByteLimit(1'500), "1,5 ko");
  QLocale::setDefault(before);
}

// The chosen language, not the system's, sets the notation of sizes and times, and Qt's own
// texts (dialog buttons, shortcut names) come in it too.
TEST(ChosenLanguage, SetsTheLocaleAndQtsOwnTexts) {
  LanguageManager::persist(std::nullopt);
  const auto install = [](const char* system) {
    LanguageManager(LanguageManager::Platform{{system}, [](const QString&) { return true; }, [] {}})
        .installLookup();
  };
  install("de-DE");
  EXPECT_EQ(formatByteCount(1'300'000), "1,3 MB");
  EXPECT_EQ(QCoreApplication::translate("QPlatformTheme", "Cancel"), "Abbrechen");
  // Portugal's own words where its catalogue has them, the buttons from Brazil's.
  install("pt-PT");
  EXPECT_EQ(QCoreApplication::translate("QPlatformTheme", "Cancel"), "Cancelar");
  EXPECT_EQ(QCoreApplication::translate("QFileDialog", "File &name:"), "&Nome do Ficheiro:");
  install("en-US");
  EXPECT_EQ(formatByteCount(1'300'000), "1.3 MB");
  EXPECT_EQ(QCoreApplication::translate("QPlatformTheme", "Cancel"), "Cancel");
  Localization::setLookup({});
}

TEST(SizeChange, HalvesRoundAwayFromZeroAndAnEmptySourceDoesNotDivideByZero) {
  struct Case {
    int64_t size, original, percent;
    bool reduced;
  } const cases[] = {
      {996, 1000, 0, true}, {995, 1000, 1, true}, {1005, 1000, 1, false},
      {10, 0, 900, false},  {0, 0, 100, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(sizeChange(c.size, c.original).percent, c.percent) << c.size << "/" << c.original;
    EXPECT_EQ(sizeChange(c.size, c.original).reduced, c.reduced) << c.size << "/" << c.original;
  }
  EXPECT_FALSE(sizeChangeText({40, true}).contains("%%"));
}

TEST(ComparisonGeometry, ZoomStepsThroughFitAnd100200400PercentAndHoldsTheDividerInside) {
  using G = std::optional<double>;
  struct Case {
    G zoom;
    double fit;
    bool in;
    G next;
  } const cases[] = {
      {{}, 0.25, true, 1.0},  {1.0, 0.25, true, 2.0},     {4.0, 0.25, true, 4.0}, {4.0, 0.25, false, 2.0},
      {1.0, 0.25, false, {}}, {{}, 1.5, true, 2.0},       {2.0, 1.5, false, {}},  {{}, 6.0, true, {}},
      {{}, 0.25, false, {}},  {{}, 0.9999999, true, 2.0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(ComparisonGeometry::zoomStep(c.zoom, c.fit, c.in), c.next)
        << c.zoom.value_or(0) << " fit " << c.fit << (c.in ? " in" : " out");
  EXPECT_DOUBLE_EQ(*ComparisonGeometry::fractionAt(-40, 400), 0.0);
  EXPECT_DOUBLE_EQ(*ComparisonGeometry::fractionAt(900, 400), 1.0);
  EXPECT_FALSE(ComparisonGeometry::fractionAt(10, 0).has_value());
}

TEST(ComparisonGeometry, TheWindowOpensForThePictureWithinTheScreenAtAnyScale) {
  const QRect screen(0, 0, 1280, 800), offset(1280, 0, 1920, 1080);
  const QSize chrome(24, 60);
  struct Case {
    QSize picture;
    double dpr;
    QRect available;
    QPoint anchor;
    QSize size;
  } const cases[] = {
      {{4000, 3000}, 2.0, screen, {640, 400}, {1152, 720}},  // 2000 x 1500 logical: 90 % of the screen
      {{800, 600}, 2.0, screen, {640, 400}, {520, 380}},     // 400 x 300: the least size
      {{800, 600}, 1.0, screen, {1270, 790}, {824, 660}},    // anchored in a corner: moved in
      {{800, 600}, 2.0, QRect(0, 0, 400, 300), {0, 0}, {360, 270}},
      {{1000, 6000}, 1.0, offset, {2240, 540}, {1024, 972}},
  };
  for (const Case& c : cases) {
    const QRect rect = ComparisonGeometry::openingRect(c.picture, c.dpr, chrome, c.available, c.anchor);
    EXPECT_EQ(rect.size(), c.size) << c.picture.width() << "@" << c.dpr;
    EXPECT_TRUE(c.available.contains(rect)) << c.picture.width() << "@" << c.dpr;
  }
}

// A provider that answers when the test says, so that the answers come in any order.
struct HeldProvider : DropItemProvider {
  explicit HeldProvider(QVariant item, bool file = true) : item_(std::move(item)), file_(file) {}
  bool hasFileURL() const override { return file_; }
  void loadItem(std::function<void(const QVariant&)> answer) override {
    loaded = true;
    answer_ = std::move(answer);
  }
  void answer() const { answer_(item_); }
  bool loaded = false;
  QVariant item_;
  bool file_;
  std::function<void(const QVariant&)> answer_;
};

TEST(FileDrop, KeepsTheOrderOfTheDragWhateverOrderTheAnswersComeAndDeclinesADropWithoutFiles) {
  const QUrl a = QUrl::fromLocalFile("/tmp/a.png"), b = QUrl::fromLocalFile("/tmp/b.png"),
             c = QUrl::fromLocalFile("/tmp/c.png");
  // c answers first, a last, each on a thread of its own; data and URL items alike; a web link
  // and an unreadable item in between.
  auto first = std::make_shared<HeldProvider>(QVariant(a.toEncoded())),
       second = std::make_shared<HeldProvider>(QVariant(b)),
       unreadable = std::make_shared<HeldProvider>(QVariant()),
       last = std::make_shared<HeldProvider>(QVariant(c));
  std::optional<QList<QUrl>> urls;
  EXPECT_TRUE(FileDropHandler::handle(
      {first, std::make_shared<HeldProvider>(QVariant(QUrl("https://x.test/")), false), second, unreadable,
       last},
      [&](const QList<QUrl>& answered) { urls = answered; }));
  for (const auto& provider : {last, unreadable, second, first})
    std::thread(&HeldProvider::answer, provider).join();
  ASSERT_TRUE(QTest::qWaitFor([&] { return urls.has_value(); }, 3000));
  EXPECT_EQ(*urls, (QList<QUrl>{a, b, c}));

  // A drop without local files is declined and never completes.
  auto link = std::make_shared<HeldProvider>(QVariant(QUrl("https://x.test/")), false);
  EXPECT_FALSE(FileDropHandler::handle({link}, [](const QList<QUrl>&) { ADD_FAILURE() << "completed"; }));
  EXPECT_FALSE(link->loaded) << "nothing is asked of a declined drop";
  QMimeData mixed;
  mixed.setUrls({QUrl("https://x.test/y.png"), QUrl::fromLocalFile("/tmp/folder")});
  EXPECT_TRUE(FileDropHandler::carriesFiles(mixed));
}

}  // namespace
}  // namespace quillane::ui

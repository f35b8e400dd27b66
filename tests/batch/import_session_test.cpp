// Import pipeline and session persistence.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "tests/batch/batch_test_support.h"

namespace quillane::testing {
namespace {

using ImportTest = BatchFixture;

QByteArray readSession() {
  QFile file(JSONFileStore::path("importSession.json"));
  return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

TEST_F(ImportTest, RowsArriveInURLOrderWhateverFinishesFirst) {
  auto o = options();
  o.processorCount = 3;
  auto& model = makeModel(o);
  inspector_.set(path("a.png"), {.delayMs = 800});
  inspector_.set(path("c.png"), {.fail = true});
  const QList<QUrl> urls = {source("a.png"), source("b.png"), source("c.png"), source("d.png"),
                            QUrl::fromLocalFile(dir_.filePath("missing.png"))};

  QFuture<void> done = model.importFiles(urls);
  QTest::qWait(150);
  // b and d are inspected by now, but a holds back every later delivery.
  EXPECT_TRUE(model.images().empty());
  ASSERT_TRUE(QTest::qWaitFor([&] { return done.isFinished(); }, 3000));

  EXPECT_EQ(names(), (QStringList{"a.png", "b.png", "d.png"}));
  EXPECT_LE(inspector_.maxRunning(), 3);
  ASSERT_EQ(model.importFailures().size(), 2u);
  EXPECT_EQ(model.importFailures()[0].url, urls[2]);
  EXPECT_EQ(model.importFailures()[1].url, urls[4]);
  EXPECT_EQ(model.importFailures()[0].message, QString::fromUtf8("Impossible de décoder l'image source."));
  for (const auto& image : model.images()) EXPECT_TRUE(image->encodeState().isEncoding());
  EXPECT_TRUE(waitIdle());
}

TEST_F(ImportTest, FailuresAreReplacedByURLAndClearedBySuccess) {
  auto& model = makeModel();
  const QUrl url = source("x.png");
  inspector_.set(path("x.png"), {.fail = true});
  import({url});
  import({url});
  ASSERT_EQ(model.importFailures().size(), 1u);
  const QUuid firstID = model.importFailures()[0].id;
  import({url});
  ASSERT_EQ(model.importFailures().size(), 1u);
  EXPECT_NE(model.importFailures()[0].id, firstID);
  EXPECT_TRUE(readSession().isEmpty());  // an import where everything failed writes no session

  inspector_.set(path("x.png"), {});
  model.retryImport(model.importFailures()[0]);
  EXPECT_TRUE(model.importFailures().empty());  // the retried entry goes at once
  ASSERT_TRUE(QTest::qWaitFor([&] { return model.images().size() == 1; }, 2000));
  EXPECT_TRUE(model.importFailures().empty());

  // A success elsewhere removes every failure with the same URL.
  inspector_.set(path("x.png"), {.fail = true});
  import({url});
  ASSERT_EQ(model.importFailures().size(), 1u);
  inspector_.set(path("x.png"), {});
  import({url});
  EXPECT_TRUE(model.importFailures().empty());
  EXPECT_EQ(model.images().size(), 2u);  // no duplicate test: two rows, two ids
  EXPECT_NE(model.images()[0]->id(), model.images()[1]->id());
}

TEST_F(ImportTest, SessionMirrorsTheListAndItsOverrides) {
  auto& model = makeModel();
  import({source("a.png"), source("b.png"), source("c.png")});
  model.setQualityOverride(model.images()[1], 40);
  model.moveImage(2, 0);
  model.removeImage(model.images()[1]);  // a.png

  const QJsonArray stored = QJsonDocument::fromJson(readSession()).array();
  ASSERT_EQ(stored.size(), 2);
  EXPECT_EQ(stored[0].toObject().value("sourceURL").toString(), QUrl::fromLocalFile(dir_.filePath("c.png")).toString());
  EXPECT_FALSE(stored[0].toObject().contains("qualityOverride"));
  EXPECT_EQ(stored[1].toObject().value("qualityOverride").toDouble(), 40);

  model.clearAll();
  EXPECT_EQ(readSession(), QByteArray("[]"));
  EXPECT_TRUE(model.images().empty());
  EXPECT_FALSE(model.isEncoding());
}

TEST_F(ImportTest, RestoreKeepsOrderAndOverridesAndListsMissingFiles) {
  {
    auto& first = makeModel();
    import({source("a.png"), source("b.png"), source("c.png"), source("d.png"), source("e.png")});
    first.setQualityOverride(first.images()[2], 40);
  }
  encoder_.openGate();
  model_.reset();
  QFile::remove(dir_.filePath("d.png"));
  inspector_.set(path("a.png"), {.delayMs = 200});  // first file finishes last

  auto o = options();
  o.restoreSession = true;
  auto& model = makeModel(o);
  EXPECT_TRUE(model.images().empty());  // restoring is queued after construction
  ASSERT_TRUE(QTest::qWaitFor([&] { return model.images().size() == 4 && !model.importFailures().empty(); }, 3000));
  ASSERT_TRUE(waitIdle());

  EXPECT_EQ(names(), (QStringList{"a.png", "b.png", "c.png", "e.png"}));
  EXPECT_EQ(model.images()[2]->qualityOverride(), 40);
  EXPECT_EQ(model.images()[2]->encodeState(), EncodeState::ready(400));
  EXPECT_EQ(model.images()[0]->encodeState(), EncodeState::ready(750));
  ASSERT_EQ(model.importFailures().size(), 1u);
  EXPECT_EQ(model.importFailures()[0].url.fileName(), "d.png");
  EXPECT_EQ(QJsonDocument::fromJson(readSession()).array().size(), 4);
  // Global settings are never stored.
  EXPECT_EQ(model.quality(), 75);
  EXPECT_EQ(model.outputFormat(), ImageFormat::jpeg);
}

TEST_F(ImportTest, CorruptOrMalformedSessionStartsEmptyAndIsLeftAlone) {
  const QList<QByteArray> broken = {
      "{not json", R"({"sourceURL":"file:///x.png"})", R"([{"qualityOverride":40}])",
      R"([{"sourceURL":"file:///x.png","qualityOverride":"high"}])"};
  for (const QByteArray& content : broken) {
    QDir().mkpath(JSONFileStore::folder());
    QFile file(JSONFileStore::path("importSession.json"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
    file.close();

    auto o = options();
    o.restoreSession = true;
    auto& model = makeModel(o);
    QTest::qWait(100);
    EXPECT_TRUE(model.images().empty()) << content.constData();
    EXPECT_TRUE(model.importFailures().empty()) << content.constData();
    EXPECT_EQ(readSession(), content);
  }
}

}  // namespace
}  // namespace quillane::testing

// Import pipeline and session persistence, and taking changes back: undoing a removal or a
// quality change puts the batch back as it was, in its order, encoded again.
#include <QJsonArray>
#include <QJsonDocument>

#include "tests/batch/batch_test_support.h"

namespace quillane::testing {
namespace {

using ImportTest = BatchFixture;

QByteArray readSession() { return contentOf(JSONFileStore::path("importSession.json")); }

TEST_F(ImportTest, RowsArriveInURLOrderWhateverFinishesFirst) {
  auto o = options();
  o.processorCount = 3;
  auto& model = makeModel(o);
  inspectAs("a.png", {.gated = true});
  inspectAs("c.png", {.fail = true});
  const QList<QUrl> urls = {source("a.png"), source("b.png"), source("c.png"), source("d.png"),
                            QUrl::fromLocalFile(dir_.filePath("missing.png"))};
  QFuture<void> done = model.importFiles(urls);
  ASSERT_TRUE(QTest::qWaitFor([&] { return inspected_ == 4; }, 2000));
  QCoreApplication::sendPostedEvents();
  EXPECT_TRUE(model.images().empty()) << "all but a are inspected, but a holds back every later delivery";
  openGate();
  ASSERT_TRUE(QTest::qWaitFor([&] { return done.isFinished(); }, 3000));
  EXPECT_EQ(names(), (QStringList{"a.png", "b.png", "d.png"}));
  ASSERT_EQ(model.importFailures().size(), 2u);
  EXPECT_EQ(std::pair(model.importFailures()[0].url, model.importFailures()[1].url),
            std::pair(urls[2], urls[4]));
}

TEST_F(ImportTest, FailuresAreReplacedByURLAndClearedBySuccess) {
  auto& model = makeModel();
  const QUrl url = source("x.png");
  inspectAs("x.png", {.fail = true});
  import({url});
  import({url});
  ASSERT_EQ(model.importFailures().size(), 1u);
  EXPECT_TRUE(readSession().isEmpty()) << "an import where everything failed writes no session";
  inspectAs("x.png", {});
  model.retryImport(model.importFailures()[0]);
  EXPECT_TRUE(model.importFailures().empty()) << "the retried entry goes at once";
  ASSERT_TRUE(QTest::qWaitFor([&] { return model.images().size() == 1; }, 2000));
  // A success elsewhere removes the failure with the same URL.
  inspectAs("x.png", {.fail = true});
  import({url});
  inspectAs("x.png", {});
  import({url});
  EXPECT_TRUE(model.importFailures().empty());
}

TEST_F(ImportTest, SessionMirrorsTheListAndARestartRestoresItInOrder) {
  makeModel();
  import(
      {source("a.png"), source("b.png"), source("c.png"), source("d.png"), source("e.png"), source("f.png")});
  model_->setQualityOverride(model_->images()[2], 40);
  model_->setSizingOverride(model_->images()[1], CompressionOptions{.maxWidth = 800, .skipLarger = true});
  model_->moveImage(4, 0);
  model_->removeImage(model_->images()[5]);
  model_->setQuality(30);
  model_->setOutputFormat(ImageFormat::webp);
  model_->persistSettings();  // as half a second later, or at exit
  const QJsonArray stored = QJsonDocument::fromJson(readSession()).array();
  ASSERT_EQ(stored.size(), 5);
  EXPECT_EQ(stored[0].toObject().value("sourceURL").toString(),
            QUrl::fromLocalFile(dir_.filePath("e.png")).toString());
  EXPECT_EQ(stored[3].toObject().value("qualityOverride").toDouble(), 40);
  QFile::remove(dir_.filePath("d.png"));

  // A file dropped while the saved rows are still coming back: the session on disk keeps those
  // not back yet, so that quitting then loses none of them.
  inspectAs("e.png", {.gated = true});
  auto o = options();
  o.restoreSession = true;
  auto& model = makeModel(o);
  QSignalSpy restored(&model, &BatchViewModel::sessionRestored);
  import({source("g.png")});
  EXPECT_EQ(QJsonDocument::fromJson(readSession()).array().size(), 6);
  openGate();
  ASSERT_TRUE(restored.wait(5000));
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(names(), (QStringList{"g.png", "e.png", "a.png", "b.png", "c.png"}));
  EXPECT_EQ(std::pair(model.quality(), model.outputFormat()), std::pair(30.0, ImageFormat::webp))
      << "format and quality come back with the batch";
  EXPECT_EQ(model.images()[4]->encodeState(), EncodeState::ready(400)) << "its override of 40";
  EXPECT_EQ(model.images()[3]->sizingOverride(), (CompressionOptions{.maxWidth = 800, .skipLarger = true}));
  EXPECT_FALSE(model.images()[2]->sizingOverride());
  EXPECT_EQ(QJsonDocument::fromJson(readSession()).array().size(), 5);
  ASSERT_EQ(model.importFailures().size(), 1u);
  EXPECT_EQ(model.importFailures()[0].url.fileName(), "d.png");
  model.clearAll();
  EXPECT_EQ(readSession(), QByteArray("[]"));
}

// Cleared before any saved row is back (through the local API, as the program starts), the
// session stays cleared: its rows neither come in afterwards nor are saved again.
TEST_F(ImportTest, ClearAllBeforeTheSessionIsBackEndsItsRestore) {
  makeModel();
  import({source("a.png"), source("b.png")});
  inspectAs("a.png", {.gated = true});
  auto o = options();
  o.restoreSession = true;
  auto& model = makeModel(o);
  QSignalSpy restored(&model, &BatchViewModel::sessionRestored),
      undoable(&model, &BatchViewModel::undoableChange);
  const int before = inspected_;
  ASSERT_TRUE(QTest::qWaitFor([&] { return inspected_ > before; }, 2000)) << "b is in, held back by a";
  model.clearAll();
  openGate();
  ASSERT_TRUE(restored.wait(5000));
  EXPECT_TRUE(model.images().empty());
  EXPECT_EQ(readSession(), QByteArray("[]"));
  EXPECT_TRUE(undoable.isEmpty()) << "nothing shown, nothing to take back";
}

TEST_F(ImportTest, EmptyCorruptOrMalformedSessionStartsEmptyAndIsLeftAlone) {
  // An empty list (the session after clearAll) is as good as none: the next start begins empty.
  ASSERT_TRUE(QDir().mkpath(JSONFileStore::folder()));
  for (const QByteArray content : {"[]", "{not json", R"([{"qualityOverride":40}])",
                                   R"([{"sourceURL":"file:///x.png","qualityOverride":"high"}])",
                                   R"([{"sourceURL":"file:///x.png","sizingOverride":800}])"}) {
    writeBytes(JSONFileStore::path("importSession.json").toStdString(), {content.begin(), content.end()});
    EXPECT_TRUE(restart(options()).images().empty()) << content.constData();
    EXPECT_EQ(readSession(), content);
  }
}

using UndoTest = BatchFixture;

TEST_F(UndoTest, EveryRemovalKindAndAQualityChangeComeBackAsTheyWereAndEncoded) {
  auto& model = readyModel({"a.png", "b.png", "c.png"});
  struct Change {
    QString mergeKey;
    std::function<void()> undo, redo;
  };
  std::vector<Change> changes;  // each step the model announced
  QObject::connect(&model, &BatchViewModel::undoableChange, &model,
                   [&](const QString&, const QString& key, auto undo, auto redo) {
                     changes.push_back({key, undo, redo});
                   });
  model.removeImage(model.images()[1]);
  ASSERT_EQ(changes.size(), 1u);
  changes[0].undo();
  EXPECT_EQ(names(), (QStringList{"a.png", "b.png", "c.png"}));
  EXPECT_TRUE(waitIdle());
  EXPECT_TRUE(model.images()[1]->encodeState().isReady());
  changes[0].redo();
  EXPECT_EQ(names(), (QStringList{"a.png", "c.png"}));

  inspectAs("broken.png", {.fail = true});  // a failure row comes back with Clear All's undo too
  import({source("broken.png")});
  ASSERT_EQ(model.importFailures().size(), 1u);
  inspectAs("late.png", {.gated = true});
  const QFuture<void> late = model.importFiles({source("late.png")});  // under way at Clear All
  model.clearAll();
  import({source("broken.png")});  // fails again meanwhile
  ASSERT_EQ(changes.size(), 2u) << "replaying announced nothing";
  changes[1].undo();
  openGate();
  ASSERT_TRUE(QTest::qWaitFor([&] { return late.isFinished(); }, 5000));
  EXPECT_EQ(names(), (QStringList{"a.png", "c.png"})) << "Clear All ended the import";
  EXPECT_EQ(model.importFailures().size(), 1u);
  EXPECT_TRUE(QTest::qWaitFor([&] { return model.images().size() == 2 && !model.isEncoding(); }, 5000));

  // A quality change goes back to the value before it, and is encoded again.
  const auto image = model.images()[0];
  model.setQualityOverride(image, 40.0);
  model.setQualityOverride(image, 40.0);  // no change, no step
  model.setQualityOverride(image, 55.0);
  ASSERT_EQ(changes.size(), 4u);
  EXPECT_EQ(changes[2].mergeKey, changes[3].mergeKey);
  changes[3].undo();
  EXPECT_EQ(image->qualityOverride(), 40.0);
  changes[2].undo();
  EXPECT_EQ(image->qualityOverride(), std::nullopt);
  EXPECT_TRUE(waitIdle());
  EXPECT_EQ(calls().back().quality, 75.0) << "encoded again with the global quality";

  // The restored batch is the saved one: a restart shows it.
  EXPECT_EQ(restart(options()).images().size(), 2u);
}

}  // namespace
}  // namespace quillane::testing

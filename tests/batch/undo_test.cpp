// Taking changes back: each removal kind and a quality change announce what undoes them, and
// undoing puts the batch back as it was, in its order, encoded again.

#include "tests/batch/batch_test_support.h"

namespace quillane::testing {
namespace {

class UndoTest : public BatchFixture {
 protected:
  struct Change {
    QString text, mergeKey;
    std::function<void()> undo, redo;
  };
  BatchViewModel& watchedModel(const QStringList& files) {
    auto& model = makeModel();
    QList<QUrl> urls;
    for (const QString& name : files) urls << source(name);
    import(urls);
    EXPECT_TRUE(waitIdle());
    QObject::connect(&model, &BatchViewModel::undoableChange, &model,
                     [this](const QString& text, const QString& key, auto undo, auto redo) {
                       changes_.push_back({text, key, undo, redo});
                     });
    return model;
  }
  std::vector<Change> changes_;
};

TEST_F(UndoTest, EveryRemovalKindAndAQualityChangeComeBackAsTheyWereAndEncoded) {
  auto& model = watchedModel({"a.png", "b.png", "c.png"});
  model.removeImage(model.images()[1]);
  ASSERT_EQ(changes_.size(), 1u);
  changes_[0].undo();
  EXPECT_EQ(names(), (QStringList{"a.png", "b.png", "c.png"}));
  EXPECT_TRUE(waitIdle());
  EXPECT_TRUE(model.images()[1]->encodeState().isReady());
  changes_[0].redo();
  EXPECT_EQ(names(), (QStringList{"a.png", "c.png"}));

  inspectAs("broken.png", {.fail = true});  // a failure row comes back with Clear All's undo too
  import({source("broken.png")});
  ASSERT_EQ(model.importFailures().size(), 1u);
  model.clearAll();
  ASSERT_EQ(changes_.size(), 2u) << "replaying announced nothing";
  changes_[1].undo();
  EXPECT_EQ(names(), (QStringList{"a.png", "c.png"}));
  EXPECT_EQ(model.importFailures().size(), 1u);
  EXPECT_TRUE(QTest::qWaitFor([&] { return model.images().size() == 2 && !model.isEncoding(); }, 5000));

  // A quality change goes back to the value before it, and is encoded again.
  const auto image = model.images()[0];
  model.setQualityOverride(image, 40.0);
  model.setQualityOverride(image, 40.0);  // no change, no step
  model.setQualityOverride(image, 55.0);
  ASSERT_EQ(changes_.size(), 4u);
  EXPECT_EQ(changes_[2].mergeKey, changes_[3].mergeKey);
  changes_[3].undo();
  EXPECT_EQ(image->qualityOverride(), 40.0);
  changes_[2].undo();
  EXPECT_EQ(image->qualityOverride(), std::nullopt);
  EXPECT_TRUE(waitIdle());
  EXPECT_EQ(calls().back().quality, 75.0) << "encoded again with the global quality";

  // The restored batch is the saved one: a restart shows it.
  auto o = options();
  o.restoreSession = true;
  auto& restarted = makeModel(o);
  EXPECT_TRUE(QTest::qWaitFor([&] { return restarted.images().size() == 2; }, 5000));
}

}  // namespace
}  // namespace quillane::testing

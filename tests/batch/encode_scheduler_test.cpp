// The encode scheduler: debounce, semaphores, watchdog, generations, passthrough.
#include <QSignalSpy>

#include "batch/AsyncSemaphore.h"
#include "tests/batch/batch_test_support.h"

namespace quillane::testing {
namespace {

TEST(AsyncSemaphoreTest, HeadOfQueueHoldsBackSmallerWaitersAndCostsAreClamped) {
  AsyncSemaphore semaphore(10);
  std::vector<std::string> order;
  semaphore.wait(6, [&] { order.push_back("A"); });
  semaphore.wait(8, [&] { order.push_back("B"); });
  semaphore.wait(1, [&] { order.push_back("C"); });  // would fit, but B is ahead of it
  QCoreApplication::processEvents();
  EXPECT_EQ(order, (std::vector<std::string>{"A"}));
  EXPECT_EQ(semaphore.availablePermits(), 4);
  EXPECT_EQ(semaphore.waiterCount(), 2);

  semaphore.signal(6);
  QCoreApplication::processEvents();
  EXPECT_EQ(order, (std::vector<std::string>{"A", "B", "C"}));
  EXPECT_EQ(semaphore.availablePermits(), 1);

  // A job larger than the whole budget takes all of it and still runs; giving back more
  // than the limit never inflates the budget.
  semaphore.signal(8);
  semaphore.signal(1);
  semaphore.wait(5730, [&] { order.push_back("huge"); });
  semaphore.wait(0, [&] { order.push_back("tiny"); });
  QCoreApplication::processEvents();
  EXPECT_EQ(order.back(), "huge");
  semaphore.signal(5730);
  semaphore.signal(5730);
  QCoreApplication::processEvents();
  EXPECT_EQ(order.back(), "tiny");
  EXPECT_EQ(semaphore.availablePermits(), 10);
}

TEST(AsyncSemaphoreTest, ContinuationNeverRunsInsideTheCallThatFreedIt) {
  AsyncSemaphore semaphore(1);
  bool ran = false;
  semaphore.wait(1, [&] { ran = true; });
  EXPECT_FALSE(ran);
  QCoreApplication::processEvents();
  EXPECT_TRUE(ran);
}

TEST(BatchBudgetTest, MemoryBudgetAndCost) {
  const uint64_t GiB = 1ull << 30;
  EXPECT_EQ(BatchViewModel::encodeMemoryBudgetMB(16 * GiB), 2048);
  EXPECT_EQ(BatchViewModel::encodeMemoryBudgetMB(64 * GiB), 4096);
  EXPECT_EQ(BatchViewModel::encodeMemoryBudgetMB(2 * GiB), 512);
  EXPECT_EQ(BatchViewModel::encodeMemoryBudgetMB(4294967295ull), 512);
  EXPECT_EQ(BatchViewModel::encodeCostMB(4000, 3000), 236);
  EXPECT_EQ(BatchViewModel::encodeCostMB(20000, 15000), 5730);
  EXPECT_EQ(BatchViewModel::encodeCostMB(0, 0), 8);
}

using SchedulerTest = BatchFixture;

TEST_F(SchedulerTest, BurstOfChangesGivesOneRecomputeWithTheLastValues) {
  auto& model = makeModel();
  import({source("a.png"), source("b.png")});
  ASSERT_TRUE(waitIdle());
  ASSERT_EQ(encoder_.calls().size(), 2u);

  model.setQuality(50);
  model.setQuality(60);
  model.setOutputFormat(ImageFormat::webp);
  EXPECT_TRUE(model.hasPendingRecompute());
  EXPECT_FALSE(model.isEncoding());  // nothing starts before the quiet time is over
  ASSERT_TRUE(waitIdle());

  const auto calls = encoder_.calls();
  ASSERT_EQ(calls.size(), 4u);
  for (size_t i = 2; i < 4; ++i) {
    EXPECT_EQ(calls[i].quality, 60);
    EXPECT_EQ(calls[i].format, ImageFormat::webp);
  }
  EXPECT_EQ(model.images()[0]->encodeState(), EncodeState::ready(600));
}

TEST_F(SchedulerTest, HeldSliderDefersTheRecomputeUntilRelease) {
  auto& model = makeModel();
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());

  model.setQualitySliderEditing(true);
  model.setQuality(30);
  QTest::qWait(400);
  EXPECT_TRUE(model.hasPendingRecompute());
  EXPECT_EQ(encoder_.calls().size(), 1u);

  model.setQualitySliderEditing(false);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(encoder_.calls().size(), 2u);
  EXPECT_EQ(encoder_.calls().back().quality, 30);

  // Releasing the thumb with nothing pending sends nothing.
  model.setQualitySliderEditing(true);
  model.setQualitySliderEditing(false);
  QTest::qWait(350);
  EXPECT_EQ(encoder_.calls().size(), 2u);
}

TEST_F(SchedulerTest, EmptyBatchNeverPendsARecompute) {
  auto& model = makeModel();
  QSignalSpy pending(&model, &BatchViewModel::hasPendingRecomputeChanged);
  model.setQuality(20);
  model.setOutputFormat(ImageFormat::avif);
  EXPECT_FALSE(model.hasPendingRecompute());
  EXPECT_EQ(pending.count(), 0);
  QTest::qWait(300);
  EXPECT_TRUE(encoder_.calls().empty());
}

TEST_F(SchedulerTest, SmallImageQueuesBehindALargeOneForMemory) {
  auto o = options();
  o.processorCount = 4;
  o.memoryBudgetMB = 100;
  auto& model = makeModel(o);
  inspector_.set(path("large.png"), {3000, 3000});  // 179 MB, clamped to the whole budget
  import({source("first.png", "slow-first"), source("large.png", "large"), source("small.png", "small")});
  ASSERT_TRUE(QTest::qWaitFor([&] { return encoder_.calls().size() == 1; }, 2000));
  QTest::qWait(150);
  // first.png holds 8 MB; large waits for all 100, and small waits behind it with 92 free.
  EXPECT_EQ(encoder_.calls().size(), 1u);

  encoder_.openGate();
  ASSERT_TRUE(waitIdle());
  const auto calls = encoder_.calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[1].source, "large");
  EXPECT_EQ(calls[2].source, "small");
  EXPECT_EQ(encoder_.maxRunning(), 1);
  for (const auto& image : model.images()) EXPECT_TRUE(image->encodeState().isReady());
}

TEST_F(SchedulerTest, TimedOutEncodeFailsReturnsPermitsAndIgnoresItsLateResult) {
  auto o = options();
  o.processorCount = 1;
  o.watchdog = std::chrono::milliseconds(200);
  auto& model = makeModel(o);
  import({source("slow.png", "slow")});
  auto slow = model.images()[0];
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(slow->encodeState(), EncodeState::failed(QString::fromUtf8("Échec de l'encodage au format JPEG.")));
  EXPECT_FALSE(slow->compressedData());

  // The only processor slot came back, although the slow work still runs.
  import({source("next.png", "next")});
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(model.images()[1]->encodeState().isReady());
  EXPECT_EQ(encoder_.running(), 1);

  QSignalSpy changes(slow.get(), &ImportedImage::encodeStateChanged);
  encoder_.openGate();
  ASSERT_TRUE(QTest::qWaitFor([&] { return encoder_.running() == 0; }, 2000));
  QTest::qWait(100);
  EXPECT_EQ(changes.count(), 0);
  EXPECT_TRUE(slow->encodeState().isFailed());
  EXPECT_FALSE(slow->compressedData());
}

TEST_F(SchedulerTest, RemovedImageWaitingAtTheSemaphoreReturnsItsPermit) {
  auto o = options();
  o.processorCount = 1;
  auto& model = makeModel(o);
  import({source("a.png", "slow-a"), source("b.png", "b")});
  auto a = model.images()[0];
  auto b = model.images()[1];
  ASSERT_TRUE(QTest::qWaitFor([&] { return encoder_.calls().size() == 1; }, 2000));

  model.removeImage(b);  // b waits for the one slot
  model.removeImage(a);  // a is running
  EXPECT_TRUE(model.images().empty());
  EXPECT_FALSE(model.isEncoding());

  encoder_.openGate();
  import({source("c.png", "c")});
  ASSERT_TRUE(QTest::qWaitFor([&] { return model.images()[0]->encodeState().isReady(); }, 3000));
  EXPECT_EQ(encoder_.callsFor("b"), 0);
  EXPECT_EQ(model.images().size(), 1u);
}

TEST_F(SchedulerTest, QualityChangeDuringAnEncodeRunsASecondEncodeAfterIt) {
  auto& model = makeModel();
  import({source("a.png", "slow")});
  auto a = model.images()[0];
  ASSERT_TRUE(QTest::qWaitFor([&] { return encoder_.calls().size() == 1; }, 2000));
  model.setQuality(40);
  QTest::qWait(350);  // the recompute has found the image busy and marked it
  EXPECT_EQ(encoder_.calls().size(), 1u);

  encoder_.openGate();
  ASSERT_TRUE(waitIdle());
  ASSERT_EQ(encoder_.calls().size(), 2u);
  EXPECT_EQ(encoder_.calls()[1].quality, 40);
  EXPECT_EQ(a->encodeState(), EncodeState::ready(400));
}

TEST_F(SchedulerTest, OverrideChangesWithinTheDebounceEncodeOnceAtTheLastValue) {
  auto& model = makeModel();
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  auto a = model.images()[0];
  model.setQualityOverride(a, 20);
  model.setQualityOverride(a, 30);
  EXPECT_TRUE(a->encodeState().isEncoding());
  ASSERT_TRUE(waitIdle());
  ASSERT_EQ(encoder_.calls().size(), 2u);
  EXPECT_EQ(encoder_.calls()[1].quality, 30);

  model.setQuality(90);  // an override wins over the global quality
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(a->encodeState(), EncodeState::ready(300));
  model.setQualityOverride(a, std::nullopt);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(a->encodeState(), EncodeState::ready(900));
}

TEST_F(SchedulerTest, AnimatedSourceInItsOwnFormatPassesThroughUnencoded) {
  auto& model = makeModel();
  model.setOutputFormat(ImageFormat::webp);
  inspector_.set(path("anim.webp"), {64, 64, ImageFormat::webp, 2});
  import({source("anim.webp", "animated-bytes")});
  auto anim = model.images()[0];
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(anim->encodeState(), EncodeState::ready(14));
  EXPECT_EQ(anim->compressedData(), QByteArray("animated-bytes"));
  model.setQuality(10);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(anim->encodeState(), EncodeState::ready(14));
  EXPECT_TRUE(encoder_.calls().empty());

  model.setOutputFormat(ImageFormat::jpeg);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(anim->encodeState(), EncodeState::ready(100));
  EXPECT_EQ(encoder_.calls().size(), 1u);
}

TEST_F(SchedulerTest, StaleResultOfAnOlderGenerationIsDropped) {
  auto& model = makeModel();
  inspector_.set(path("anim.webp"), {64, 64, ImageFormat::webp, 2});
  import({source("anim.webp", "slow-animated")});  // encoded to JPEG: the gated encoder
  auto anim = model.images()[0];
  ASSERT_TRUE(QTest::qWaitFor([&] { return encoder_.calls().size() == 1; }, 2000));

  model.setOutputFormat(ImageFormat::webp);  // passthrough takes over with a newer generation
  ASSERT_TRUE(QTest::qWaitFor([&] { return anim->encodeState().isReady(); }, 2000));
  EXPECT_EQ(anim->compressedData(), QByteArray("slow-animated"));

  encoder_.openGate();
  ASSERT_TRUE(QTest::qWaitFor([&] { return encoder_.running() == 0; }, 2000));
  QTest::qWait(100);
  EXPECT_EQ(anim->encodeState(), EncodeState::ready(13));
  EXPECT_EQ(anim->compressedData(), QByteArray("slow-animated"));
  EXPECT_FALSE(model.isEncoding());
}

TEST_F(SchedulerTest, FailedEncodeShowsTheErrorAndRetrySucceedsLater) {
  auto& model = makeModel();
  import({source("bad.png", "bad"), source("good.png")});
  ASSERT_TRUE(waitIdle());
  auto bad = model.images()[0];
  EXPECT_EQ(bad->encodeState(), EncodeState::failed(QString::fromUtf8("Impossible de décoder l'image source.")));
  EXPECT_TRUE(model.images()[1]->encodeState().isReady());
  EXPECT_EQ(model.encodingCompletedCount(), 2);

  // Unreadable source on a retry: the file's own error text.
  QFile::remove(bad->sourcePath());
  model.scheduleEncode(bad, false);
  EXPECT_TRUE(model.isEncoding());
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(bad->encodeState().isFailed());
  EXPECT_FALSE(bad->encodeState().message.isEmpty());
}

TEST_F(SchedulerTest, WaitForEncodingToFinishIsBounded) {
  auto& model = makeModel();
  import({source("a.png", "slow")});
  ASSERT_TRUE(model.isEncoding());
  EXPECT_TRUE(model.waitForEncodingToFinish(0).isFinished());

  QFuture<void> wait = model.waitForEncodingToFinish(0.2);
  EXPECT_FALSE(wait.isFinished());
  EXPECT_TRUE(QTest::qWaitFor([&] { return wait.isFinished(); }, 2000));
  EXPECT_TRUE(model.isEncoding());

  QFuture<void> untilDone = model.waitForEncodingToFinish(10);
  encoder_.openGate();
  EXPECT_TRUE(QTest::qWaitFor([&] { return untilDone.isFinished(); }, 3000));
  EXPECT_FALSE(model.isEncoding());
}

}  // namespace
}  // namespace quillane::testing

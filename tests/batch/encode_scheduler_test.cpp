// The encode scheduler: debounce, budgets, watchdog, generations, passthrough.
#include "batch/PoolTask.h"
#include "budget/CompressionBudget.h"
#include "tests/batch/batch_test_support.h"
#include "tests/support/CodecFixtures.h"

namespace quillane::testing {
namespace {

using SchedulerTest = BatchFixture;
using namespace std::chrono_literals;

TEST_F(SchedulerTest, GlobalChangesAreDebouncedAndWaitForTheSliderToBeLetGo) {
  auto o = options();
  o.startTimer = clock_.starter();
  auto& model = makeModel(o);
  import({source("a.png"), source("b.png")});
  ASSERT_TRUE(waitIdle());

  model.setQuality(50);
  model.setQuality(60);
  clock_.advance(o.debounce - 1ms);
  model.setOutputFormat(ImageFormat::webp);
  clock_.advance(o.debounce - 1ms);  // the quiet time starts again at each change
  EXPECT_TRUE(model.hasPendingRecompute() && !model.isEncoding()) << "nothing starts before it is over";
  clock_.advance(1ms);
  ASSERT_TRUE(waitIdle());
  ASSERT_EQ(calls().size(), 4u);
  EXPECT_EQ(std::pair(calls()[3].quality, calls()[3].format), std::pair(60.0, ImageFormat::webp));

  model.setQualitySliderEditing(true);
  model.setQuality(30);
  clock_.advance(1h);
  EXPECT_TRUE(model.hasPendingRecompute() && !model.isEncoding());
  model.setQualitySliderEditing(false);
  clock_.advance(o.debounce);
  ASSERT_TRUE(waitIdle());
  ASSERT_EQ(calls().size(), 6u);
  EXPECT_EQ(calls().back().quality, 30);
}

TEST_F(SchedulerTest, TimeoutsAndCancelledWaitersGiveTheirPermitsBackAndTheWorkGivenUpOnIsCancelled) {
  auto o = options();
  o.processorCount = 1;
  o.startTimer = clock_.starter();  // no deadline passes but those the test passes
  auto& model = makeModel(o);
  import({source("slow.png", "slow"), source("b.png", "b")});
  auto slow = model.images()[0];
  model.removeImage(model.images()[1]);  // b waits for the one slot, then hands it back unused
  ASSERT_TRUE(waitForCalls(1));
  clock_.advance(o.watchdog);  // slow's deadline
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(slow->encodeState(),
            EncodeState::failed(QString::fromUtf8("Échec de l'encodage au format JPEG.")));

  import({source("next.png", "next")});  // the slot came back, although the slow work runs on
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(model.images()[1]->encodeState().isReady());
  EXPECT_EQ(encoding_.load(), 1);
  EXPECT_EQ(calls().size(), 2u) << "b is never encoded";
  // The work a watchdog gave up on sees the flag and ends instead of running on for its ten seconds.
  import({source("spin.png", "spin")});
  ASSERT_TRUE(waitForCalls(3));
  clock_.advance(o.watchdog);

  QSignalSpy changes(slow.get(), &ImportedImage::encodeStateChanged);
  openGate();
  drainEncodes();
  EXPECT_TRUE(sawCancellation_);
  EXPECT_EQ(changes.count(), 0) << "the late result changes nothing";
  EXPECT_FALSE(slow->compressedData());
}

// The row fails at the deadline, but the memory goes back only when the work returns: the
// encode behind it waits for it although processors are free, and so does the next inspection
// (of a real picture: its file and its thumbnail's decode), which goes ahead of that encode.
TEST_F(SchedulerTest, AnEncodeThatOutlivesItsDeadlineKeepsItsMemoryUntilItReturns) {
  auto o = options();
  o.processorCount = 4;
  o.memoryBudgetMB = 0;  // the process's budget, shared with every other front end
  o.startTimer = clock_.starter();
  auto& model = makeModel(o);
  CompressionBudget& budget = CompressionBudget::process();
  inspectAs("huge.png", {60000, 60000});  // clamped to the whole budget
  import({source("huge.png", "slow"), source("small.png", "small")});
  ASSERT_TRUE(QTest::qWaitFor([&] { return calls().size() == 1 && budget.waiterCount() == 1; }, 2000));
  clock_.advance(o.watchdog);
  ASSERT_TRUE(model.images()[0]->encodeState().isFailed());
  EXPECT_EQ(budget.availablePermits(), 0) << "the row failed, the work still runs";

  const QString picture = dir_.filePath("picture.png");
  testing::writeBytes(picture.toStdString(), fixtures::png(fixtures::quadrants(64, 64)));
  QFuture<void> next = model.importFiles({QUrl::fromLocalFile(picture)});
  ASSERT_TRUE(QTest::qWaitFor([&] { return budget.waiterCount() == 2; }, 2000));
  EXPECT_FALSE(next.isFinished());
  openGate();
  ASSERT_TRUE(QTest::qWaitFor([&] { return next.isFinished(); }, 5000));
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(model.images()[2]->encodeState().isReady());
  EXPECT_EQ(budget.availablePermits(), budget.limit());
  // The fake inspector made no thumbnail, as for a picture too costly to inspect: the encode,
  // which reads the picture anyway, adds one.
  const DecodedImage& thumbnail = model.images()[2]->thumbnail();
  EXPECT_EQ(std::pair(thumbnail.width, thumbnail.height), std::pair(64, 64));
}

TEST_F(SchedulerTest, ChangesDuringAnEncodeRunOneMoreEncodeAfterItAndOverridesWin) {
  auto o = options();
  o.startTimer = clock_.starter();
  auto& model = makeModel(o);
  import({source("a.png", "slow")});
  auto a = model.images()[0];
  ASSERT_TRUE(waitForCalls(1));
  model.setQuality(40);
  clock_.advance(o.debounce);
  QFuture<void> bounded = model.waitForEncodingToFinish(0.4);
  ASSERT_TRUE(QTest::qWaitFor([&] { return bounded.isFinished(); }, 2000)) << "the wait gives up in time";
  EXPECT_EQ(calls().size(), 1u) << "the recompute found the image busy and marked it";
  QFuture<void> untilDone = model.waitForEncodingToFinish(10);
  openGate();
  ASSERT_TRUE(QTest::qWaitFor([&] { return untilDone.isFinished(); }, 3000));
  EXPECT_EQ(calls().size(), 2u);
  EXPECT_EQ(a->encodeState(), EncodeState::ready(400));

  // Two override changes within the quiet time: one encode, at the last value.
  model.setQualityOverride(a, 20);
  model.setQualityOverride(a, 30);
  clock_.advance(o.debounce);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(calls().size(), 3u);
  model.setQuality(90);
  clock_.advance(o.debounce);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(a->encodeState(), EncodeState::ready(300)) << "the override wins";
}

TEST_F(SchedulerTest, AnimatedSourceInItsOwnFormatPassesThroughAndOutranksAnOlderEncode) {
  auto o = options();
  o.memoryBudgetMB = 0;                                     // the process's, which the test can read
  auto heldAtRead = std::make_shared<std::atomic<int>>(0);  // permits taken at the latest read
  o.reader = [heldAtRead](const std::string& path) {
    const CompressionBudget& budget = CompressionBudget::process();
    heldAtRead->store(budget.limit() - budget.availablePermits());
    return FileIO::readFile(path);
  };
  auto& model = makeModel(o);
  inspectAs("anim.webp", {64, 64, ImageFormat::webp, 2});
  import({source("anim.webp", "slow-animated")});  // to JPEG first: the gated encoder
  auto anim = model.images()[0];
  ASSERT_TRUE(waitForCalls(1));

  model.setOutputFormat(ImageFormat::webp);  // passthrough takes over with a newer generation
  ASSERT_TRUE(QTest::qWaitFor([&] { return anim->encodeState().isReady(); }, 2000));
  openGate();
  drainEncodes();
  EXPECT_EQ(anim->encodeState(), EncodeState::ready(13)) << "the older encode's result is dropped";
  EXPECT_EQ(anim->compressedData(), QByteArray("slow-animated"));
  model.setQuality(10);  // quality does not apply to a passthrough
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(calls().size(), 1u);

  // The file is read whole and copied for the row (an animation may be 1 GiB): that is claimed.
  inspectAs("big.webp", {64, 64, ImageFormat::webp, 2});
  import({source("big.webp", QByteArray(3 << 20, 'b'))});
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(model.images()[1]->encodeState(), EncodeState::ready(3 << 20));
  EXPECT_EQ(heldAtRead->load(), 6);
}

// A source replaced since its import by a larger picture is claimed at what it now holds, by its
// next encode and by that encode's measure, not at the figures of its import.
TEST_F(SchedulerTest, ASourceReplacedByALargerPictureIsClaimedAtWhatItNowHolds) {
  auto o = options();
  o.memoryBudgetMB = 0;  // the process's, which the test can read
  o.measureResults = true;
  auto freePermits = std::make_shared<std::vector<int>>();  // at each read and encode, under mutex_
  const auto note = [this, freePermits] {
    std::lock_guard lock(mutex_);
    freePermits->push_back(CompressionBudget::process().availablePermits());
  };
  o.reader = [note](const std::string& path) {
    note();
    return FileIO::readFile(path);
  };
  o.encoder = [this, note](std::span<const uint8_t> data, ImageFormat format, double quality) {
    note();
    return encode(data, format, quality);
  };
  auto& model = makeModel(o);
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  const auto noted = [&] {
    std::lock_guard lock(mutex_);
    return freePermits->size();
  };
  ASSERT_TRUE(QTest::qWaitFor([&] { return noted() == 3; }, 5000));  // read, encode, measure's read
  drainEncodes();

  // 504 megapixels in its header, whose decode stops where its data does.
  writeBytes(path("a.png"), fixtures::starvedPng(24000, 21000, 8, 40 << 10, true));
  QSignalSpy measured(model.images()[0].get(), &ImportedImage::resultLookChanged);
  model.setQuality(50);
  ASSERT_TRUE(measured.wait(5000));
  std::lock_guard lock(mutex_);
  EXPECT_EQ(std::vector(freePermits->end() - 2, freePermits->end()), std::vector({0, 0}))
      << "encode, measure";
}

// A row that leaves the batch (by Clear All, whose undo brings it back encoded anew) is not measured,
// neither after the encode it was in the middle of nor by a measure already queued.
TEST_F(SchedulerTest, ClearedRowsAreNotMeasuredAfterTheirEncodeNorByAQueuedMeasure) {
  auto o = options();
  o.processorCount = 1;
  o.measureResults = true;
  auto reads = std::make_shared<std::map<QString, int>>();  // by file name, under mutex_
  o.reader = [this, reads](const std::string& path) {
    std::unique_lock lock(mutex_);
    ++(*reads)[QFileInfo(QString::fromStdString(path)).fileName()];
    lock.unlock();
    return FileIO::readFile(path);
  };
  auto& model = makeModel(o);
  import({source("a.png", "slow"), source("s.png", "slow")});
  // Closed again once a is encoded: s, next for the one slot, waits at it, and a's measure behind s.
  ImportedImage* a = model.images()[0].get();
  QObject::connect(a, &ImportedImage::encodeStateChanged, a, [this, a] {
    std::lock_guard lock(mutex_);
    if (a->encodeState().isReady()) gateOpen_ = false;
  });
  openGate();
  ASSERT_TRUE(waitForCalls(2));
  const ImageList cleared = model.images();  // kept, as the undo of Clear All keeps them
  model.clearAll();
  import({source("b.png", "b")});
  QSignalSpy measured(model.images()[0].get(), &ImportedImage::resultLookChanged);
  openGate();
  ASSERT_TRUE(measured.wait(5000));
  std::lock_guard lock(mutex_);
  EXPECT_EQ(*reads, (std::map<QString, int>{{"a.png", 1}, {"b.png", 2}, {"s.png", 1}}));
}

// Pool work comes back once, on the context's thread, however fast it ends (the continuation is in
// place before the work is queued); an exception reaches the returned future and skips `done`.
TEST(PoolTask, ResultsComeBackOnceOnTheContextsThreadAndExceptionsReachTheFuture) {
  QThreadPool pool;
  QObject context;
  int calls = 0, sum = 0;
  std::vector<QFuture<int>> doubled;
  doubled.reserve(500);
  for (int i = 0; i < 500; ++i)
    doubled.push_back(PoolTask::run(
        &pool, &context, [i] { return i; },
        [&](int value) {
          EXPECT_EQ(QThread::currentThread(), context.thread());
          ++calls, sum += value;
          return value * 2;
        }));
  ASSERT_TRUE(QTest::qWaitFor([&] { return calls == 500; }, 10000)) << calls;
  pool.waitForDone();
  QCoreApplication::processEvents();
  EXPECT_EQ(calls, 500);
  EXPECT_EQ(sum, 500 * 499 / 2);
  EXPECT_EQ(doubled[7].result(), 14);

  QFuture<void> failed = PoolTask::run(
      &pool, &context, []() -> int { throw std::runtime_error("no"); }, [&](int) { ++calls; });
  ASSERT_TRUE(QTest::qWaitFor([&] { return failed.isFinished(); }, 10000));
  EXPECT_THROW(failed.waitForFinished(), std::runtime_error);
  EXPECT_EQ(calls, 500);
}

}  // namespace
}  // namespace quillane::testing

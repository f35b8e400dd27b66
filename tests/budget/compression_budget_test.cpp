// The compression budget: one first-in-first-out queue for continuations and blocked threads.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTest>
#include <atomic>
#include <memory>
#include <thread>

#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"

namespace quillane::testing {
namespace {

struct BudgetSteps {
  CompressionBudget budget{10};
  QObject context;
  std::string order;
  void wait(int cost, char name) {
    budget.wait(cost, &context, [this, name] { order += name; });
  }
  void waitAhead(int cost, char name) {
    budget.waitAhead(cost, &context, [this, name] { order += name; });
  }
  std::string step(std::initializer_list<int> givenBack) {
    for (int cost : givenBack) budget.release(cost);
    QCoreApplication::processEvents();
    return order;
  }
};

TEST(CompressionBudgetTest, StrictlyFirstInFirstOutWithClampedCostsAndNoPermitKeptByACallerGone) {
  BudgetSteps s;
  s.wait(6, 'A');
  s.wait(8, 'B');
  s.wait(1, 'C');  // would fit, but B is ahead of it
  EXPECT_EQ(s.order, "") << "a continuation never runs inside the call that freed it";
  EXPECT_EQ(s.step({}), "A");
  EXPECT_EQ(s.step({6}), "ABC");
  // A job larger than the whole budget takes all of it and still runs; giving back more
  // than the limit never inflates the budget.
  s.wait(5730, 'H');
  s.wait(0, 't');
  EXPECT_EQ(s.step({8, 1}), "ABCH");
  EXPECT_EQ(s.step({5730, 5730}), "ABCHt");
  EXPECT_EQ(s.budget.availablePermits(), 10);
  // A caller gone before its turn gives the permits back.
  auto gone = std::make_unique<QObject>();
  s.budget.wait(10, gone.get(), [&] { s.order += 'X'; });
  gone.reset();
  EXPECT_EQ(s.step({}), "ABCHt");
  EXPECT_EQ(s.budget.availablePermits(), 10);
}

TEST(CompressionBudgetTest, WaitAheadPassesQueuedWaitersButNeverHeldPermits) {
  BudgetSteps s;
  s.wait(8, 'A');
  s.wait(5, 'B');       // 2 free: queued
  s.waitAhead(2, 'i');  // fits in the 2 free although B waits
  s.waitAhead(4, 'j');  // does not fit: queued, but ahead of B
  EXPECT_EQ(s.step({}), "Ai");
  EXPECT_EQ(s.step({8}), "Aij") << "B needs 5 and 4 are free";
  EXPECT_EQ(s.step({2}), "AijB");
}

TEST(CompressionBudgetTest, BlockedThreadsQueueWithContinuationsInOneOrder) {
  BudgetSteps s;
  s.wait(10, 'A');
  ASSERT_EQ(s.step({}), "A");
  std::atomic<bool> claimed{false}, letGo{false};
  std::thread worker([&] {
    CompressionBudget::Claim claim = s.budget.claim(7);
    claimed = true;
    while (!letGo) std::this_thread::yield();
  });
  ASSERT_TRUE(QTest::qWaitFor([&] { return s.budget.waiterCount() == 1; }, 2000));
  s.wait(4, 'B');  // behind the blocked thread, though it fits as soon as A ends
  EXPECT_EQ(s.step({10}), "A");
  ASSERT_TRUE(QTest::qWaitFor([&] { return bool(claimed); }, 2000));
  EXPECT_EQ(s.step({}), "A") << "3 free while the thread holds 7";
  letGo = true;
  worker.join();
  EXPECT_EQ(s.step({}), "AB") << "the claim went back with its thread";
}

TEST(CompressionCostTest, BudgetFollowsTheMachineAndCostsFollowPixels) {
  EXPECT_EQ(CompressionCost::memoryBudgetMB(2ull << 30), 512);
  EXPECT_EQ(CompressionCost::memoryBudgetMB(16ull << 30), 2048);
  EXPECT_EQ(CompressionCost::memoryBudgetMB(1ull << 40), 4096);
  EXPECT_EQ(CompressionCost::fileCostMB("/nonexistent", ImageFormat::jpeg, 75), INT32_MAX) << "runs alone";
  EXPECT_GT(CompressionCost::encodeCostMB({ImageFormat::jpeg, 4000, 3000, 0}, ImageFormat::jpeg, 75),
            CompressionCost::encodeCostMB({ImageFormat::jpeg, 1000, 1000, 0}, ImageFormat::jpeg, 75));
  EXPECT_EQ(CompressionCost::megabytes((1u << 20) + 1), 2);
}

// Never a small figure that wrapped.
TEST(CompressionCostTest, TheLargestHeadersAndFilesCostTheMostThereIs) {
  const std::tuple<ImageFormat, int, int> largest[] = {{ImageFormat::jpeg, 65535, 65535},
                                                       {ImageFormat::png, INT32_MAX, 1},
                                                       {ImageFormat::png, INT32_MAX, INT32_MAX},
                                                       {ImageFormat::jxl, 1 << 30, 1 << 30}};
  for (const auto& [format, width, height] : largest)
    for (const ImageFormat target : ImageFormats::allCases)
      EXPECT_EQ(CompressionCost::encodeCostMB({format, width, height, 0}, target, 75), INT32_MAX)
          << width << " x " << height << " to " << int(target);
  EXPECT_EQ(
      CompressionCost::encodeCostMB({ImageFormat::webp, 16383, 16383, 1ull << 62}, ImageFormat::webp, 75),
      INT32_MAX);
  EXPECT_EQ(CompressionCost::measureCostMB(INT32_MAX, INT32_MAX, 0, 0), INT32_MAX);
  EXPECT_EQ(CompressionCost::measureCostMB(64, 64, 1ull << 62, 0), INT32_MAX);  // 12 bytes a cell pixel
  EXPECT_EQ(CompressionCost::megabytes(UINT64_MAX), INT32_MAX);
}

}  // namespace
}  // namespace quillane::testing

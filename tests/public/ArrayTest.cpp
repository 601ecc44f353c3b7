#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/SVArray.h>
#include <qorxmlu/foundation/VArray.h>

#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace QOR {
namespace {

TEST(ArrayTest, GrowsByItsStepAndKeepsOrderAndCapacityThroughInsertRemoveAndTruncate) {
  SVArray<int> fresh;
  EXPECT_EQ(fresh.Size(), 0u);
  EXPECT_EQ(fresh.Capacity(), 0u);
  EXPECT_EQ(fresh.CapacityIncrease(), 80u);
  fresh.Add(1);
  EXPECT_EQ(fresh.Capacity(), 80u);

  SVArray<int> a;
  a.SetCapacityIncrease(3);
  for (int i : {1, 2, 4}) a.Add(i);
  EXPECT_EQ(a.Capacity(), 3u);
  a.Insert(3, 2);
  a.Insert(0, 0);
  a.Insert(5, 99); // past the end appends
  ASSERT_EQ(a.Size(), 6u);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(a[i], i);
  EXPECT_EQ(a.Capacity(), 6u);

  a.Remove(2);
  EXPECT_EQ(a.Size(), 5u);
  EXPECT_EQ(a[2], 3);
  EXPECT_EQ(a[4], 5);
  EXPECT_EQ(a.Capacity(), 6u);
  a.Remove(5); // not below Size(): no effect
  a.Remove(100);
  EXPECT_EQ(a.Size(), 5u);

  a.Truncate(2);
  EXPECT_EQ(a.Size(), 2u);
  EXPECT_EQ(a.Capacity(), 6u);
  a.Truncate(0); // lets the block go, keeps the step
  EXPECT_EQ(a.Capacity(), 0u);
  EXPECT_EQ(a.CapacityIncrease(), 3u);
}

TEST(ArrayTest, CopiesShareUntilOneChanges) {
  SVArray<int> source;
  source.SetCapacityIncrease(18);
  for (int i = 0; i < 20; ++i) source.Add(i);
  SVArray<int> copy = source;
  EXPECT_EQ(source.ShareCount(), 2);
  EXPECT_EQ(&std::as_const(copy)[0], &std::as_const(source)[0]);

  copy.Add(20);
  EXPECT_EQ(source.ShareCount(), 1);
  EXPECT_EQ(copy.ShareCount(), 1);
  EXPECT_EQ(source.Size(), 20u);
  EXPECT_EQ(copy.Size(), 21u);
  // The separated body takes the default step 80 over a smaller one, rounded up from the count.
  EXPECT_EQ(copy.CapacityIncrease(), 80u);
  EXPECT_EQ(copy.Capacity(), 80u);
  EXPECT_EQ(source.CapacityIncrease(), 18u);

  SVArray<int> big;
  big.SetCapacityIncrease(100);
  big.Add(1);
  SVArray<int> bigCopy;
  bigCopy = big;
  bigCopy.Remove(0);
  EXPECT_EQ(bigCopy.CapacityIncrease(), 100u);
  EXPECT_EQ(big.Size(), 1u);

  bigCopy = bigCopy; // self-assignment changes nothing
  EXPECT_EQ(bigCopy.ShareCount(), 1);
}

TEST(ArrayTest, RecordArraysSeparateOnWriteAndTheirRecordsStayPutWhileTheyGrow) {
  VArray<String> names;
  names.SetCapacityIncrease(2);
  names.Add(String(u"a"));
  names.Add(String(u"b"));
  const String* first = &std::as_const(names)[0];
  VArray<String> copy(names);
  copy.Insert(String(u"front"), 0);
  copy[1] = String(u"changed");
  EXPECT_EQ(std::as_const(names)[0], String(u"a"));
  EXPECT_EQ(std::as_const(copy)[1], String(u"changed"));

  // A write through [] separates too, so the change never shows in the other handle.
  VArray<String> second(names);
  second[0] = String(u"x");
  EXPECT_EQ(std::as_const(names)[0], String(u"a"));

  for (int i = 0; i < 1000; ++i) names.Add(String(u"more"));
  EXPECT_EQ(first, &std::as_const(names)[0]);
  names.Remove(0);
  EXPECT_EQ(names.Size(), 1001u);
  names.Truncate(0);
  EXPECT_EQ(names.Capacity(), 0u);
}

TEST(ArrayTest, HandlesOnOneBodyLiveOnSeveralThreads) {
  VArray<String> shared;
  for (int i = 0; i < 100; ++i) shared.Add(String(u"x"));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shared] {
      for (int i = 0; i < 500; ++i) {
        VArray<String> mine = shared; // copy under the array lock
        if (i % 3 == 0) mine.Add(String(u"y"));
        EXPECT_GE(mine.Size(), 100u);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared.Size(), 100u);
  EXPECT_EQ(shared.ShareCount(), 1);
}

} // namespace
} // namespace QOR

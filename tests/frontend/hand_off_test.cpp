#include "frontend/hand_off.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace qx {
namespace {

TEST(HandOffTest, BatchesKeepOrderAndTextAcrossPublishes) {
  Mailbox<int> box;
  HandOffBatch<int> batch, taken;
  batch.Add(1, HandOff::kText, "one");
  batch.Add(2, HandOff::kClose, "two");
  EXPECT_TRUE(box.Publish(batch));  // the receiver has to be woken
  EXPECT_TRUE(batch.empty());
  batch.Add(3, HandOff::kStart);
  // One text for several targets is carried once, and still found after being appended.
  const size_t four = batch.Add(4, HandOff::kText, "four");
  batch.AddSameText(5, HandOff::kText, four);
  EXPECT_FALSE(box.Publish(batch));  // it is woken already: appended, no second wake-up
  box.Take(taken);
  ASSERT_EQ(taken.items().size(), 5u);
  const char* texts[] = {"one", "two", "", "four", "four"};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(taken.items()[i].target, i + 1);
    EXPECT_EQ(taken.Text(taken.items()[i]), texts[i]);
  }
  EXPECT_EQ(taken.items()[1].op, HandOff::kClose);
  EXPECT_EQ(taken.items()[4].offset, taken.items()[3].offset);
  taken.Clear();
  batch.Add(5, HandOff::kInput, "five");
  EXPECT_TRUE(box.Publish(batch));  // taken since: wake again
}

// A sender thread and a receiver that drains only when woken: nothing is lost, nothing
// reordered, and no wake-up is missed however the two interleave.
TEST(HandOffTest, EveryItemArrivesInOrderBetweenThreads) {
  constexpr int kItems = 200000;
  Mailbox<int> box;
  std::atomic<int> wakes{0};
  std::thread sender([&] {
    HandOffBatch<int> batch;
    for (int i = 0; i < kItems; ++i) {
      batch.Add(i, HandOff::kText, std::to_string(i));
      if (i % 7 == 6 || i == kItems - 1) {
        if (box.Publish(batch)) wakes.fetch_add(1);
      }
    }
  });
  HandOffBatch<int> taken;
  int next = 0;
  int handled_wakes = 0;
  while (next < kItems) {
    if (wakes.load() == handled_wakes) {
      std::this_thread::yield();
      continue;
    }
    ++handled_wakes;
    box.Take(taken);
    for (const auto& item : taken.items()) {
      ASSERT_EQ(item.target, next);
      ASSERT_EQ(taken.Text(item), std::to_string(next));
      ++next;
    }
    taken.Clear();
  }
  sender.join();
  EXPECT_EQ(next, kItems);
}

}  // namespace
}  // namespace qx

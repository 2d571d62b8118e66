#include "Platform/Foundation/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Support/Child.h"

namespace {

using platform::Notification;
using platform::NotificationCenter;

TEST(NotificationCenterTest, callsTheObserversOfANameInOrder) {
  NotificationCenter center;
  std::string trace;
  const auto add = [&](const char* name, const char* text) {
    return center.addObserver(name, [&trace, text](const Notification& posted) {
      trace += text + posted.name.str() + (posted.object.isNull() ? "" : posted.object.string()->str()) + " ";
    });
  };
  const auto first = add("a", "1");
  const auto again = add("a", "2");
  add("b", "3");
  add("a", "4");
  center.post("a", "+");
  EXPECT_EQ(trace, "1a+ 2a+ 4a+ ");
  trace.clear();
  center.removeObserver(again);
  center.post("a");
  center.post("c");
  center.removeObserver(first);
  center.post("b");
  EXPECT_EQ(trace, "1a 4a 3b ");
}

TEST(NotificationCenterTest, observersMayComeAndGoDuringAPost) {
  NotificationCenter center;
  std::string trace;
  NotificationCenter::Observer self{};
  NotificationCenter::Observer next{};
  self = center.addObserver("a", [&](const Notification&) {
    trace += "self ";
    center.removeObserver(self);
    center.removeObserver(next);
    next = center.addObserver("a", [&](const Notification&) { trace += "new "; });
    center.post("b");
  });
  next = center.addObserver("a", [&](const Notification&) { trace += "next "; });
  (void)center.addObserver("b", [&](const Notification&) { trace += "nested "; });
  center.post("a");
  EXPECT_EQ(trace, "self nested ");
  center.post("a");
  EXPECT_EQ(trace, "self nested new ");
}

TEST(NotificationCenterTest, threadsPostWhileOthersComeAndGo) {
  constexpr int kRounds = 2000;
  NotificationCenter center;
  std::atomic<int> called{0};
  const auto count = [&called](const Notification&) { ++called; };
  (void)center.addObserver("all", count);
  std::vector<std::jthread> threads;
  for (const char* own : {"1", "2", "3", "4"}) {
    threads.emplace_back([&center, count, own] {
      for (int round = 0; round < kRounds; ++round) {
        const auto observer = center.addObserver(own, count);
        center.post("all");
        center.removeObserver(observer);
        center.post(own);
      }
    });
  }
  threads.clear();
  EXPECT_EQ(called, 4 * kRounds);
}

TEST(NotificationCenterTest, theOwnerOfACrashPostsFromItsOwnMemory) {
  NotificationCenter center;
  core::String seen;
  (void)center.addObserver("crashed", [&](const Notification& posted) { seen = posted.name; });
  EXPECT_TRUE(test::onCrashOwner([&] { center.post("crashed", "while it is handled"); }));
  EXPECT_EQ(seen, "crashed");
  EXPECT_TRUE(core::CrashHeap::contains(seen.data()));
}

}  // namespace

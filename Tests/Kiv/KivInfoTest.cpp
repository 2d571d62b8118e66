#include "Kiv/common/KivInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiv/common/KivSharedNames.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/RunLoop/RunLoop.h"

namespace {

TEST(KivInfo, NumbersTheEventsAndTellsOnTheMainQueue) {
  const char* const kNames[] = {"DidResignActive", "WillBecomeActive", "DidFinishLaunching",
                                "DidBecomeActive", "WillResignActive", "WillTerminate"};
  KivInfo& info = KivInfo::sharedInfo();
  auto& center = platform::NotificationCenter::defaultCenter();
  ASSERT_TRUE(platform::RunLoop::main().attach());
  std::vector<std::int64_t> asked;
  std::vector<std::int64_t> told;
  info.start();
  info.start();
  info.subscribeForApplicationLifecycleEvents([&](std::int64_t event) { asked.push_back(event); });
  const auto observer = center.addObserver(
      KivApplicationLifecycleChangedNotification,
      [&](const platform::Notification& notification) { told.push_back(notification.object.asInteger().value_or(0)); });
  std::vector<std::int64_t> expected;
  for (const char* const name : kNames) {
    expected.push_back(static_cast<std::int64_t>(expected.size()) + 1);
    center.post(core::String("NSApplication" + std::string(name) + "Notification"));
    EXPECT_EQ(info.lastEvent(), expected.back()) << name;
  }
  EXPECT_EQ(asked, expected);
  EXPECT_TRUE(told.empty());
  platform::RunLoop::main().drain();
  EXPECT_EQ(told, expected);
  center.removeObserver(observer);
  info.subscribeForApplicationLifecycleEvents(nullptr);
  platform::RunLoop::main().detach();
}

}  // namespace

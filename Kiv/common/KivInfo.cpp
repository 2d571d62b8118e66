#include "Kiv/common/KivInfo.h"

#include <string_view>

#include "Kiv/common/KivSharedNames.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

struct Row {
  KivInfo::Event event;
  std::string_view notification;
};

/// In the order of registration.
constexpr Row kRows[] = {
    {KivInfo::kDidEnterBackground, "NSApplicationDidResignActiveNotification"},
    {KivInfo::kWillEnterForeground, "NSApplicationWillBecomeActiveNotification"},
    {KivInfo::kDidFinishLaunching, "NSApplicationDidFinishLaunchingNotification"},
    {KivInfo::kDidBecomeActive, "NSApplicationDidBecomeActiveNotification"},
    {KivInfo::kWillResignActive, "NSApplicationWillResignActiveNotification"},
    {KivInfo::kWillTerminate, "NSApplicationWillTerminateNotification"},
};

}  // namespace

KivInfo& KivInfo::sharedInfo() noexcept {
  static auto& info = *new KivInfo;
  return info;
}

void KivInfo::start() noexcept {
  if (started_.exchange(true)) {
    return;
  }
  for (const Row& row : kRows) {
    [[maybe_unused]] const auto observer = platform::NotificationCenter::defaultCenter().addObserver(
        row.notification, [this, event = row.event](const platform::Notification&) { handle(event); });
  }
  subscribeForReachability();
}

void KivInfo::handle(Event event) noexcept {
  lastEvent_ = event;
  if (const EventBlock block = lifecycleEventBlock()) {
    block(event);
  }
  postAppLifeCycleNotification(event);
}

void KivInfo::postAppLifeCycleNotification(std::int64_t event) noexcept {
  platform::DispatchQueue::main().async([event] {
    platform::NotificationCenter::defaultCenter().post(KivApplicationLifecycleChangedNotification, core::Value(event));
  });
}

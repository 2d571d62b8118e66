#pragma once

#include <atomic>
#include <cstdint>

#include "Core/Memory/Block.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"

/// Turns what the platform tells of the application's life into numbered events, and tells the
/// library. Started by the lifecycle manager at installation; never destroyed.
///
/// Events come on the thread that posts the platform's notifications; the library hears of them on
/// the main queue, so that lastEvent() there may be of a later one already. Any thread may ask.
class KivInfo {
 public:
  /// A desktop program is in the background when it is not the active one.
  enum Event : std::int64_t {
    kNone = 0,
    kDidEnterBackground = 1,
    kWillEnterForeground = 2,
    kDidFinishLaunching = 3,
    kDidBecomeActive = 4,
    kWillResignActive = 5,
    kWillTerminate = 6,
  };
  using EventBlock = core::Block<void(std::int64_t)>;

  static KivInfo& sharedInfo() noexcept;

  /// Begins to listen; only the first call does anything.
  void start() noexcept;

  std::int64_t lastEvent() const noexcept { return lastEvent_; }

  /// Called with each event before the library is told; an empty one ends that.
  void subscribeForApplicationLifecycleEvents(EventBlock block) noexcept { lifecycleEventBlock_.set(std::move(block)); }
  EventBlock lifecycleEventBlock() const noexcept { return lifecycleEventBlock_.get(); }

  void postAppLifeCycleNotification(std::int64_t event) noexcept;

  // The network, of which nobody is asked: it counts as there, and as free of charge.
  core::String networkAPN() const noexcept { return networkAPN_.get(); }
  void setNetworkAPN(core::String name) noexcept { networkAPN_.set(std::move(name)); }
  bool isWIFIAvailable() const noexcept { return true; }
  bool isNetworkReachable() const noexcept { return true; }
  void subscribeForReachability() noexcept {}

 private:
  KivInfo() noexcept = default;
  ~KivInfo() = delete;
  void handle(Event event) noexcept;

  std::atomic<bool> started_{false};
  std::atomic<std::int64_t> lastEvent_{kNone};
  core::Published<EventBlock> lifecycleEventBlock_;
  core::Published<core::String> networkAPN_{core::String("unknown")};
};

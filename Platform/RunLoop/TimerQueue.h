#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Platform/RunLoop/Clock.h"
#include "Platform/RunLoop/DeadlineHeap.h"
#include "Platform/RunLoop/Inbox.h"
#include "Platform/RunLoop/Poller.h"
#include "Platform/RunLoop/Timer.h"

namespace platform {

/// The timers of one run loop. add() may be called by any thread and waits for no lock; the
/// rest by the loop's thread. Wakes the poller when there is something to collect.
class TimerQueue final : private Timer::Owner {
 public:
  /// Both must outlive the queue.
  TimerQueue(const Clock& clock, Poller& poller) noexcept : clock_(clock), poller_(poller) {}
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;
  /// Invalidates all timers.
  ~TimerQueue();

  /// Fires `seconds` from now and, when it repeats, at every multiple of that; moments that
  /// went by unserved are left out, so that it neither drifts nor fires in a burst.
  Timer add(double seconds, bool repeats, core::Block<void(Timer&)> block) noexcept;

  /// Takes in what was added and drops what was invalidated.
  void collect() noexcept;

  /// When the next timer is due, kNever for none.
  std::int64_t earliest() const noexcept { return timers_.earliest(); }

  /// Calls the block of the first timer that is due at `now`; false when none is.
  bool fireNext(std::int64_t now);

 private:
  void timerInvalidated() noexcept override;

  const Clock& clock_;
  Poller& poller_;
  Inbox<Timer::State> added_;
  DeadlineHeap<std::shared_ptr<Timer::State>> timers_;
  std::atomic<bool> invalidated_{false};
};

}  // namespace platform

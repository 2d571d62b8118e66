#include "Platform/RunLoop/TimerQueue.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Core/Memory/Allocator.h"

namespace platform {
namespace {

constexpr std::int64_t kShortestInterval = 100'000;

/// The first multiple of the interval that lies after `now`.
std::int64_t followingDeadline(const Timer::State& timer, std::int64_t now) noexcept {
  const std::int64_t late = std::max<std::int64_t>(now - timer.deadline, 0);
  return timer.deadline + (late / timer.interval + 1) * timer.interval;
}

}  // namespace

TimerQueue::~TimerQueue() {
  collect();
  while (const auto timer = timers_.takeDue(kNever)) {
    (*timer)->valid.store(false);
    (*timer)->block = nullptr;
  }
}

Timer TimerQueue::add(double seconds, bool repeats, core::Block<void(Timer&)> block) noexcept {
  const std::int64_t delay = nanosecondsOf(seconds);
  const std::int64_t interval = repeats ? std::max(delay, kShortestInterval) : 0;
  auto timer = std::allocate_shared<Timer::State>(core::Allocator<Timer::State>());
  timer->owner = this;
  timer->deadline = clock_.nanoseconds() + delay;
  timer->interval = interval;
  timer->block = std::move(block);
  timer->self = timer;
  if (added_.push(timer.get())) {
    poller_.wake();
  }
  return Timer(std::move(timer));
}

void TimerQueue::collect() noexcept {
  for (Timer::State* added = added_.takeAll(); added != nullptr;) {
    const std::shared_ptr<Timer::State> timer = std::move(added->self);
    added = timer->next;
    timers_.add(timer->deadline, timer);
  }
  if (invalidated_.exchange(false)) {
    const auto isInvalid = [](const std::shared_ptr<Timer::State>& timer) { return !timer->valid.load(); };
    for (const std::shared_ptr<Timer::State>& timer : timers_.takeIf(isInvalid)) {
      timer->block = nullptr;
    }
  }
}

bool TimerQueue::fireNext(std::int64_t now) {
  while (const auto due = timers_.takeDue(now)) {
    const std::shared_ptr<Timer::State>& timer = *due;
    const bool fires = timer->valid.load();
    if (fires) {
      Timer handle(timer);
      timer->block(handle);
    }
    if (timer->interval != 0 && timer->valid.load()) {
      timer->deadline = followingDeadline(*timer, clock_.nanoseconds());
      timers_.add(timer->deadline, timer);
    } else {
      timer->valid.store(false);
      timer->block = nullptr;
    }
    if (fires) {
      return true;
    }
  }
  return false;
}

void TimerQueue::timerInvalidated() noexcept {
  if (!invalidated_.exchange(true)) {
    poller_.wake();
  }
}

}  // namespace platform

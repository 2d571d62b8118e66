#include "Platform/RunLoop/WorkerPool.h"

#include <chrono>
#include <optional>
#include <utility>

#include "Platform/RunLoop/Clock.h"
#include "Platform/RunLoop/Thread.h"

namespace platform {

void WorkerPool::add(core::Block<void()> block) {
  Work* const work = Work::make(std::move(block));
  const std::lock_guard lock(mutex_);
  ready_.append(work);
  startThread();
  changed_.notify_one();
}

void WorkerPool::addAfter(double seconds, core::Block<void()> block) {
  Work* const work = Work::make(std::move(block));
  const std::lock_guard lock(mutex_);
  delayed_.add(Clock::monotonic().nanoseconds() + nanosecondsOf(seconds), work);
  startThread();
  changed_.notify_all();  // whoever waits, waits for a moment that may be too late now
}

// One more where work is left without a thread that waits for it; somebody has to wait for what
// is delayed, too. Where the system grants no thread, the work waits for the next try.
void WorkerPool::startThread() {
  const std::size_t wanted = ready_.size() + (delayed_.earliest() == kNever ? 0 : 1);
  if (wanted > waiting_ && threads_ < kThreads && Thread::start("KivWorker", [this] { serve(); })) {
    ++threads_;
    ++waiting_;  // it comes to wait at once
  }
}

void WorkerPool::serve() {
  for (;;) {
    Work::run(next());
    const std::lock_guard lock(mutex_);
    ++waiting_;
  }
}

Work* WorkerPool::next() {
  std::unique_lock lock(mutex_);
  for (;;) {
    takeInDue(Clock::monotonic().nanoseconds());
    if (Work* const work = ready_.take()) {
      --waiting_;
      startThread();
      return work;
    }
    if (const std::int64_t earliest = delayed_.earliest(); earliest == kNever) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(earliest)));
    }
  }
}

void WorkerPool::takeInDue(std::int64_t now) noexcept {
  while (const std::optional<Work*> due = delayed_.takeDue(now)) {
    ready_.append(*due);
  }
}

}  // namespace platform

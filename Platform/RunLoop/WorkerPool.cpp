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
  startThreads();
  changed_.notify_one();
}

void WorkerPool::addAfter(double seconds, core::Block<void()> block) {
  Work* const work = Work::make(std::move(block));
  const std::lock_guard lock(mutex_);
  delayed_.add(Clock::monotonic().nanoseconds() + nanosecondsOf(seconds), work);
  startThreads();
  changed_.notify_all();  // whoever waits, waits for a moment that may be too late now
}

// Where the system grants no thread, the work waits for the next try.
void WorkerPool::startThreads() {
  while (threads_ < kThreads && Thread::start("KivWorker", [this] { serve(); })) {
    ++threads_;
  }
}

void WorkerPool::serve() {
  for (;;) {
    Work::run(next());
  }
}

Work* WorkerPool::next() {
  std::unique_lock lock(mutex_);
  for (;;) {
    takeInDue(Clock::monotonic().nanoseconds());
    if (Work* const work = ready_.take()) {
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

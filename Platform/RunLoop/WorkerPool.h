#pragma once

#include <condition_variable>
#include <mutex>

#include "Core/Memory/Block.h"
#include "Platform/RunLoop/DeadlineHeap.h"
#include "Platform/RunLoop/Work.h"

namespace platform {

/// A few threads that call blocks, begun in the order of their posting. They start as
/// they are needed and nobody ever joins them, so a pool lives as long as the process.
///
/// Any thread may post but the owner of a crash: there is a lock.
class WorkerPool {
 public:
  static constexpr int kThreads = 4;

  WorkerPool() = default;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void add(core::Block<void()> block);
  void addAfter(double seconds, core::Block<void()> block);

 private:
  void startThread();
  void serve();
  Work* next();
  void takeInDue(std::int64_t now) noexcept;

  std::mutex mutex_;
  std::condition_variable changed_;
  WorkList ready_;
  DeadlineHeap<Work*> delayed_;
  int threads_ = 0;
  std::size_t waiting_ = 0;  // threads that have no work
};

}  // namespace platform

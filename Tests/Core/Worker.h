#pragma once

#include <atomic>
#include <thread>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadFiles.h"

namespace test {

/// A thread whose kernel id is known. Joined with the object.
class Worker {
 public:
  template <class Body>
  explicit Worker(Body body)
      : thread_([this, body] {
          id_ = core::threadId();
          id_.notify_all();
          body();
        }) {
    id_.wait(0);
  }
  ~Worker() { join(); }

  int id() const { return id_; }
  pthread_t handle() { return thread_.native_handle(); }
  void join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  std::atomic<int> id_{0};
  std::thread thread_;
};

/// Goes up from value to value while threads wait for them.
class Stage {
 public:
  void enter(int next) {
    value_ = next;
    value_.notify_all();
  }
  void await(int wanted) const {
    for (int seen; (seen = value_) < wanted;) {
      value_.wait(seen);
    }
  }

 private:
  std::atomic<int> value_{0};
};

/// Waits until the thread sleeps in the call of that number; answers where. Given that place, until it
/// sleeps there: right after a suspension it still does so in the suspension's own futex. 0
/// when it has ended.
inline std::uint64_t awaitSleep(int thread, long call, std::uint64_t place = 0) {
  while (!core::readThreadName(thread).view().empty()) {
    const auto sleeping = core::readSleepingThread(thread);
    if (sleeping && sleeping->call == call && (place == 0 || sleeping->instructionPointer == place)) {
      return sleeping->instructionPointer;
    }
    std::this_thread::yield();
  }
  return 0;
}

}  // namespace test

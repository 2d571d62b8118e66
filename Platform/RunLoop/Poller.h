#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace platform {

/// What a run loop sleeps on: descriptors, one deadline, and a wake-up call.
///
/// wake() may be called by any thread and in a signal handler, add() and remove() by any
/// thread, the rest by the loop's thread. Where the process has no descriptors left, waits are short sleeps
/// until there are some.
class Poller {
 public:
  struct Ready {
    std::uint64_t id;
    std::uint32_t events;
  };
  static constexpr std::size_t kBatch = 16;

  Poller() noexcept;
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;
  ~Poller();

  /// Ends the wait that goes on, or the next one. Leaves errno alone.
  void wake() noexcept;

  /// Reports `events` (EPOLLIN ...) of a descriptor under `id`, as long as they last. False
  /// when it cannot be waited for. Remove it before it is closed.
  bool add(int descriptor, std::uint32_t events, std::uint64_t id) noexcept;
  void remove(int descriptor) noexcept;

  /// Ends a wait `nanoseconds` from now; kNever for not at all. Replaces the one before.
  void arm(std::int64_t nanoseconds) noexcept;

  /// Waits at most `nanoseconds` (whole milliseconds, rounded up; kNever for no end) and
  /// answers how many of `ready` it filled in. A signal may end it early.
  std::size_t wait(std::int64_t nanoseconds, Ready (&ready)[kBatch]) noexcept;

  /// Readable as long as a wait would return at once; -1 for none.
  int descriptor() const noexcept { return poll_; }

 private:
  bool open() noexcept;

  std::atomic<int> poll_{-1};
  int timer_ = -1;
  std::atomic<int> wake_{-1};
};

}  // namespace platform

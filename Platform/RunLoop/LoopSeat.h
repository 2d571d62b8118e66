#pragma once

#include <atomic>

#include "Platform/RunLoop/Poller.h"

namespace platform {

/// Which thread is inside a run loop, and which one drives it.
///
/// There is one seat. A driver keeps its claim from its first stay until giveUp(), also
/// while it is outside; the service thread sits there only as long as nobody drives. The
/// seat orders memory: what one thread did inside, the next one there sees.
class LoopSeat {
 public:
  /// The poller of the loop, which must outlive the seat.
  explicit LoopSeat(Poller& poller) noexcept : poller_(poller) {}
  LoopSeat(const LoopSeat&) = delete;
  LoopSeat& operator=(const LoopSeat&) = delete;

  /// Takes the seat and drives from now on; waits for the service thread to hand over. A
  /// thread that is inside already goes one deeper. False when another driver is inside.
  bool enter() noexcept;
  /// As the service thread; false when a driver is there.
  bool enterAsService() noexcept;
  void leave() noexcept;

  /// The calling thread's claim ends, if it has one; its stay goes on.
  void giveUp() noexcept;

  bool isDriven() const noexcept { return driver_.load() != 0; }
  /// Whether it is the calling thread that drives, or that is inside.
  bool isDriver() const noexcept;
  bool isInside() const noexcept;

  // Asked by the thread that is inside.
  bool isService() const noexcept;
  /// The same, and not in a nested run.
  bool isServiceOutermost() const noexcept { return depth_ == 1 && isService(); }

 private:
  Poller& poller_;
  // Kernel thread ids, 0 for none.
  std::atomic<int> inside_{0};
  std::atomic<int> driver_{0};
  std::atomic<int> service_{0};
  int depth_ = 0;  // of the thread that is inside
};

}  // namespace platform

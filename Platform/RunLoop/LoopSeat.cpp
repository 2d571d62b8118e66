#include "Platform/RunLoop/LoopSeat.h"

#include "Core/Kernel/Process.h"

namespace platform {

bool LoopSeat::enter() noexcept {
  const int self = core::threadId();
  if (isInside()) {
    ++depth_;
    return true;
  }
  for (int other = 0; !inside_.compare_exchange_strong(other, self); other = 0) {
    if (other == service_.load()) {
      driver_.store(self);
      poller_.wake();
      inside_.wait(other);
    } else if (other == inside_.load()) {  // not a service thread that has left since
      return false;
    }
  }
  driver_.store(self);
  depth_ = 1;
  return true;
}

bool LoopSeat::enterAsService() noexcept {
  const int self = core::threadId();
  service_.store(self);
  while (!isDriven()) {
    int other = 0;
    if (inside_.compare_exchange_strong(other, self)) {
      depth_ = 1;
      return true;
    }
    inside_.wait(other);
  }
  service_.store(0);
  return false;
}

// The service thread's id goes after its seat: a driver that finds it inside must wait, not give up.
void LoopSeat::leave() noexcept {
  if (--depth_ != 0) {
    return;
  }
  const bool service = isService();
  inside_.store(0);
  inside_.notify_all();
  if (service) {
    service_.store(0);
  }
}

void LoopSeat::giveUp() noexcept {
  int self = core::threadId();
  driver_.compare_exchange_strong(self, 0);
}

bool LoopSeat::isDriver() const noexcept {
  return core::threadId() == driver_.load();
}

bool LoopSeat::isInside() const noexcept {
  return core::threadId() == inside_.load();
}

bool LoopSeat::isService() const noexcept {
  const int service = service_.load();
  return service != 0 && service == inside_.load();
}

}  // namespace platform

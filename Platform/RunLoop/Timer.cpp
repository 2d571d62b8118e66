#include "Platform/RunLoop/Timer.h"

namespace platform {

void Timer::invalidate() const noexcept {
  if (state_ != nullptr && state_->valid.exchange(false)) {
    state_->owner->timerInvalidated();
  }
}

bool Timer::isValid() const noexcept {
  return state_ != nullptr && state_->valid.load();
}

}  // namespace platform

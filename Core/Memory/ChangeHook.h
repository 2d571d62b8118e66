#pragma once

#include <atomic>

namespace core {

/// One function that is told of changes, by whichever thread makes them and after they are there; set
/// once, at installation. Nobody is told before that.
template <class... Arguments>
class ChangeHook {
 public:
  using Function = void (*)(Arguments...);

  void set(Function function) noexcept { function_.store(function, std::memory_order_release); }
  void call(Arguments... arguments) const noexcept {
    if (const Function function = function_.load(std::memory_order_acquire)) {
      function(arguments...);
    }
  }

 private:
  std::atomic<Function> function_{nullptr};
};

}  // namespace core

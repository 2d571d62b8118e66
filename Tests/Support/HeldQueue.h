#pragma once

#include <list>
#include <mutex>
#include <utility>

#include "Platform/RunLoop/DispatchQueue.h"

namespace test {

/// Keeps background work until it is asked for; forgets delayed work.
class HeldQueue final : public platform::DispatchQueue {
 public:
  /// Calls what was sent so far and answers how many that were.
  std::size_t run() {
    std::unique_lock lock(mutex_);
    const std::list<Block> blocks = std::exchange(blocks_, {});
    lock.unlock();
    for (const Block& block : blocks) {
      block();
    }
    return blocks.size();
  }

 private:
  void send(Block block) override {
    const std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
  }
  void sendAfter(double, Block) override {}
  std::mutex mutex_;
  std::list<Block> blocks_;
};

}  // namespace test

#include "Platform/RunLoop/DispatchQueue.h"

#include <utility>

#include "Core/Memory/CrashOwner.h"
#include "Platform/RunLoop/RunLoop.h"
#include "Platform/RunLoop/WorkerPool.h"

namespace platform {
namespace {

class MainQueue final : public DispatchQueue {
  void send(Block block) override { RunLoop::main().perform(std::move(block)); }
  void sendAfter(double seconds, Block block) override { RunLoop::main().performAfter(seconds, std::move(block)); }
};

class GlobalQueue final : public DispatchQueue {
  void send(Block block) override { pool_.add(std::move(block)); }
  void sendAfter(double seconds, Block block) override {
    if (!core::CrashOwner::isCurrentThread()) {
      pool_.addAfter(seconds, std::move(block));
    }
  }

  WorkerPool pool_;
};

}  // namespace

DispatchQueue& DispatchQueue::main() noexcept {
  static DispatchQueue* const queue = new MainQueue;
  return *queue;
}

DispatchQueue& DispatchQueue::global() noexcept {
  static DispatchQueue* const queue = new GlobalQueue;
  return *queue;
}

void DispatchQueue::async(Block block) {
  if (core::CrashOwner::isCurrentThread()) {
    block();
    return;
  }
  send(std::move(block));
}

void DispatchQueue::asyncAfter(double seconds, Block block) {
  sendAfter(seconds, std::move(block));
}

bool DispatchQueue::drainMain() {
  return RunLoop::main().drain();
}

}  // namespace platform

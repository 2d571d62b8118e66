#pragma once

#include "Core/Memory/Block.h"

namespace platform {

/// Where work is sent that is not to be done here and now. Any thread may send; blocks are
/// copied with their captures, and what they throw is not caught.
///
///     DispatchQueue::global().async([report] { report.write(); });
///
/// On the owner of a crash, async() calls the block at once instead: background work is done
/// inline there. It takes no lock and no heap.
class DispatchQueue {
 public:
  using Block = core::Block<void()>;

  DispatchQueue() noexcept = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// One block after the other, in the order of sending, on the thread that serves
  /// RunLoop::main(). A block that waits keeps the others waiting.
  static DispatchQueue& main() noexcept;
  /// The concurrent queue of default priority: a few threads, for whatever may block.
  static DispatchQueue& global() noexcept;

  void async(Block block);

  /// The block once `seconds` have passed. On the owner of a crash the global queue drops it,
  /// since the process ends before.
  void asyncAfter(double seconds, Block block);

  /// For an orderly end: calls what the main queue holds, delayed blocks apart. Nothing
  /// and false on a thread that is neither the main one nor in charge of the main loop.
  static bool drainMain();

 protected:
  ~DispatchQueue() = default;

 private:
  virtual void send(Block block) = 0;
  virtual void sendAfter(double seconds, Block block) = 0;
};

}  // namespace platform

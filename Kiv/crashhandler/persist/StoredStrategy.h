#pragma once

#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Kiv/common/model/KivLocalStrategy.h"
#include "Platform/RunLoop/DispatchQueue.h"

/// The last strategy that the server sent, in memory and in ".new_strategy.data". The file is written
/// and removed in the background; of operations that overtake each other there the last one called
/// holds. KivFilePersistHandler's, which outlives the background work; any thread.
class StoredStrategy {
 public:
  explicit StoredStrategy(platform::DispatchQueue& queue) noexcept : queue_(queue) {}

  /// What the file in `folder` holds; the defaults where that is nothing, or an older version's. Only
  /// the first call reads.
  KivLocalStrategy load(const core::String& folder) noexcept;
  void save(const core::String& folder, KivLocalStrategy strategy) noexcept;
  /// Leaves the defaults, once the background has come to it.
  void remove(const core::String& folder) noexcept;

 private:
  /// Sends `work` to the background, where it is done unless a later one was.
  template <class Work>
  void send(Work work) noexcept;

  platform::DispatchQueue& queue_;
  core::Published<KivLocalStrategy> strategy_;
  std::atomic<bool> strategyLoaded_{false};
  core::Mutex mutex_;
  std::uint64_t called_ = 0;  // operations, under mutex_
  std::uint64_t done_ = 0;    // the latest of them that the file has seen
};

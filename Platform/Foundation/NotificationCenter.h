#pragma once

#include <cstdint>

#include "Core/Memory/Block.h"
#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"
#include "Platform/RunLoop/ObserverList.h"

namespace platform {

/// What is announced: a name and what goes with it (null for nothing).
struct Notification {
  core::String name;
  core::Value object;
};

/// Tells observers of one name what others post under it, so that the two need not know
/// each other.
///
/// Any thread may do anything here, also from an observer's block. Observers are called
/// on the posting thread, in the order of their adding, with no lock held. The owner of a
/// crash may post: it waits for nothing and takes nothing from the heap.
class NotificationCenter {
 public:
  /// What removeObserver() takes; one of no observer is 0.
  using Observer = std::uint64_t;

  /// Never destroyed.
  static NotificationCenter& defaultCenter() noexcept;

  [[nodiscard]] Observer addObserver(core::String name, core::Block<void(const Notification&)> block) noexcept;

  /// After its return no call of the block begins on the calling thread; a post that goes on
  /// elsewhere may still make one. Unknown and removed ones are let pass.
  void removeObserver(Observer observer) noexcept;

  void post(core::String name, core::Value object = core::Value()) const;

 private:
  ObserverList<core::String, const Notification&> observers_;
};

}  // namespace platform

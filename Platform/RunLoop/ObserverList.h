#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "Core/Memory/Allocator.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/Block.h"
#include "Core/Memory/Published.h"

namespace platform {

/// Blocks that are called, in the order of their adding, when something happens.
///
/// Any thread may add, remove and notify. A notification calls those that were there when
/// it began, without a lock. Once remove() has returned, no call of the block begins on that
/// thread; one that another thread has begun or is about to begin still comes. The owner of
/// a crash may notify: it waits for nothing and takes no memory.
template <class Key, class Argument>
class ObserverList {
 public:
  using Block = core::Block<void(Argument)>;

  struct Entry {
    Entry(Key ownKey, Block ownBlock) noexcept : key(std::move(ownKey)), block(std::move(ownBlock)) {}
    const Key key;
    const Block block;
    std::atomic<bool> removed{false};
  };

  /// The number to remove it by, unique in this list and never 0.
  std::uint64_t add(Key key, Block block) noexcept {
    const auto entry = std::allocate_shared<Entry>(core::Allocator<Entry>(), std::move(key), std::move(block));
    const std::uint64_t id = ++lastId_;
    observers_.update([&](Snapshot& snapshot) {
      auto changed = copyOf(snapshot);
      changed->append(Item{id, entry});
      snapshot = std::move(changed);
    });
    return id;
  }

  /// The key it was added with; nothing when there is no such one.
  std::optional<Key> remove(std::uint64_t id) noexcept {
    // What goes away is dropped after the update, since a capture's destructor may do anything.
    const std::shared_ptr<Entry> gone = observers_.update([id](Snapshot& snapshot) {
      auto changed = copyOf(snapshot);
      for (std::size_t i = 0; i < changed->size(); ++i) {
        if ((*changed)[i].id == id) {
          std::shared_ptr<Entry> found = std::move((*changed)[i].entry);
          changed->removeAt(i);
          snapshot = std::move(changed);
          return found;
        }
      }
      return std::shared_ptr<Entry>();
    });
    if (gone == nullptr) {
      return std::nullopt;
    }
    gone->removed.store(true);
    return gone->key;
  }

  /// Calls the blocks of all for which `matches(id, key)`.
  template <class Match>
  void notify(Match&& matches, Argument argument) const {
    const Snapshot snapshot = observers_.get();
    if (snapshot == nullptr) {
      return;
    }
    for (const Item& item : *snapshot) {
      if (matches(item.id, item.entry->key) && !item.entry->removed.load()) {
        item.entry->block(argument);
      }
    }
  }

 private:
  struct Item {
    std::uint64_t id;
    std::shared_ptr<Entry> entry;
  };
  using Items = core::Array<Item>;
  using Snapshot = std::shared_ptr<const Items>;

  static std::shared_ptr<Items> copyOf(const Snapshot& snapshot) noexcept {
    return snapshot != nullptr ? std::allocate_shared<Items>(core::Allocator<Items>(), *snapshot)
                               : std::allocate_shared<Items>(core::Allocator<Items>());
  }

  core::Published<Snapshot> observers_;
  std::atomic<std::uint64_t> lastId_{0};
};

}  // namespace platform

#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "Core/Memory/Array.h"
#include "Platform/RunLoop/Clock.h"

namespace platform {

/// Items ordered by the moment they are due, those of one moment in the order of their
/// adding. Not locked. Moments are nanoseconds of the owner's clock.
template <class Item>
class DeadlineHeap {
 public:
  void add(std::int64_t deadline, Item item) noexcept {
    entries_.append(Entry{deadline, sequence_++, std::move(item)});
    std::push_heap(entries_.begin(), entries_.end(), isLater);
  }

  /// The next moment at which something is due, kNever for none.
  std::int64_t earliest() const noexcept { return entries_.empty() ? kNever : entries_[0].deadline; }

  /// The first item that is due at `now`, taken out.
  std::optional<Item> takeDue(std::int64_t now) noexcept {
    if (earliest() > now || entries_.empty()) {
      return std::nullopt;
    }
    std::pop_heap(entries_.begin(), entries_.end(), isLater);
    std::optional<Item> item(std::move(entries_.back().item));
    entries_.removeAt(entries_.size() - 1);
    return item;
  }

  /// Hands out every item that `matches(const Item&)`, in no order.
  template <class Match>
  core::Array<Item> takeIf(Match&& matches) noexcept {
    core::Array<Item> taken;
    core::Array<Entry> kept;
    for (Entry& entry : entries_) {
      if (matches(std::as_const(entry.item))) {
        taken.append(std::move(entry.item));
      } else {
        kept.append(std::move(entry));
      }
    }
    entries_ = std::move(kept);
    std::make_heap(entries_.begin(), entries_.end(), isLater);
    return taken;
  }

 private:
  struct Entry {
    std::int64_t deadline;
    std::uint64_t sequence;
    Item item;
  };
  static bool isLater(const Entry& a, const Entry& b) noexcept {
    return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
  }

  core::Array<Entry> entries_;
  std::uint64_t sequence_ = 0;
};

}  // namespace platform

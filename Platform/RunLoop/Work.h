#pragma once

#include <cstddef>
#include <new>
#include <utility>

#include "Core/Memory/Allocator.h"
#include "Core/Memory/Block.h"

namespace platform {

/// A block that waits for its turn.
struct Work {
  Work* next;
  core::Block<void()> block;

  static Work* make(core::Block<void()> block) noexcept {
    return new (core::allocate(sizeof(Work))) Work{nullptr, std::move(block)};
  }
  static void destroy(Work* work) noexcept {
    work->~Work();
    core::deallocate(work);
  }
  /// Calls the block once and ends the work, whatever the block throws.
  static void run(Work* work) {
    const core::Block<void()> block = std::move(work->block);
    destroy(work);
    block();
  }
};

/// Work in the order in which it is to run. Not locked; owns what it holds.
class WorkList {
 public:
  WorkList() noexcept = default;
  WorkList(const WorkList&) = delete;
  WorkList& operator=(const WorkList&) = delete;
  ~WorkList() {
    while (Work* const work = take()) {
      Work::destroy(work);
    }
  }

  void append(Work* work) noexcept {
    work->next = nullptr;
    *end_ = work;
    end_ = &work->next;
    ++size_;
  }
  /// The first one, nullptr for none.
  Work* take() noexcept {
    Work* const work = first_;
    if (work != nullptr) {
      first_ = work->next;
      end_ = first_ == nullptr ? &first_ : end_;
      --size_;
    }
    return work;
  }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return first_ == nullptr; }

 private:
  Work* first_ = nullptr;
  Work** end_ = &first_;
  std::size_t size_ = 0;
};

}  // namespace platform

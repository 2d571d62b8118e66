#pragma once

#include <atomic>

namespace platform {

/// Where any thread hands nodes to the one that takes them, without a lock. A node is any
/// type with a `Node* next`; it belongs to the inbox from push() to takeAll(). Pushing is
/// fit for the owner of a crash.
template <class Node>
class Inbox {
 public:
  /// True when the inbox was empty: the taker has to be told.
  bool push(Node* node) noexcept {
    Node* older = newest_.load(std::memory_order_relaxed);
    do {
      node->next = older;
    } while (!newest_.compare_exchange_weak(older, node));
    return older == nullptr;  // the node is the taker's by now
  }

  /// All nodes in the order of their pushes, linked by `next`; nullptr for none.
  Node* takeAll() noexcept {
    Node* oldest = nullptr;
    for (Node* node = newest_.exchange(nullptr); node != nullptr;) {
      Node* const older = node->next;
      node->next = oldest;
      oldest = node;
      node = older;
    }
    return oldest;
  }

  bool empty() const noexcept { return newest_.load() == nullptr; }

 private:
  std::atomic<Node*> newest_{nullptr};
};

}  // namespace platform

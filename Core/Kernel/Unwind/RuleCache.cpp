#include "Core/Kernel/Unwind/RuleCache.h"

namespace core {

constinit RuleCache ruleCache;

void RuleCache::insert(std::uint64_t key, StepRule rule) noexcept {
  Bucket& bucket = buckets_[bucketOf(key)];
  Entry* place = nullptr;
  for (Entry& entry : bucket.entries) {
    if (entry.rule.load(std::memory_order_relaxed) == 0) {
      place = &entry;
      break;
    }
  }
  if (place == nullptr) {
    place = &bucket.entries[evictions_.fetch_add(1, std::memory_order_relaxed) % kWays];
  }
  place->rule.store(rule.bits(), std::memory_order_relaxed);
  place->sealedKey.store(key ^ seal(rule.bits()), std::memory_order_relaxed);
}

void RuleCache::clear() noexcept {
  for (Bucket& bucket : buckets_) {
    for (Entry& entry : bucket.entries) {
      entry.rule.store(0, std::memory_order_relaxed);
      entry.sealedKey.store(0, std::memory_order_relaxed);
    }
  }
}

}  // namespace core

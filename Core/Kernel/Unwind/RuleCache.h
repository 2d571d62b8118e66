#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "Core/Kernel/Unwind/StepRule.h"

namespace core {

/// The rules of code addresses that walks met before: fixed capacity, no lock, any number of
/// threads in it at once. An entry that two threads write at once, or that is read while it is
/// written, is not found. Fit for the crash path.
///
/// An address counts together with the generation of the image table it was looked up in.
class RuleCache {
 public:
  /// The code at an address. A context's own address and a return address less one are told
  /// apart, since the same place may answer differently to them. Never 0 for generations from 1 on.
  static std::uint64_t key(std::uint64_t address, bool isContext, std::uint64_t generation) noexcept {
    return address << kTagBits | (isContext ? kContextBit : 0) | (generation & kGenerationMask);
  }
  /// Addresses from here on have no key.
  static constexpr std::uint64_t kAddressLimit = std::uint64_t{1} << 47;
  /// Generations repeat after this many: clear() then.
  static constexpr std::uint64_t kGenerationMask = 0xFFFF;

  StepRule find(std::uint64_t key) const noexcept {
    for (const Entry& entry : buckets_[bucketOf(key)].entries) {
      const std::uint64_t rule = entry.rule.load(std::memory_order_relaxed);
      if ((entry.sealedKey.load(std::memory_order_relaxed) ^ seal(rule)) == key) {
        return StepRule::fromBits(rule);
      }
    }
    return StepRule();
  }

  void insert(std::uint64_t key, StepRule rule) noexcept;
  void clear() noexcept;

 private:
  static constexpr unsigned kTagBits = 17;
  static constexpr std::uint64_t kContextBit = 0x10000;
  static constexpr unsigned kBucketBits = 10;
  static constexpr std::size_t kWays = 4;

  /// The key is stored combined with the rule, so that the halves of different writes do not match.
  struct Entry {
    std::atomic<std::uint64_t> sealedKey{0};
    std::atomic<std::uint64_t> rule{0};
  };
  /// One cache line.
  struct alignas(64) Bucket {
    std::array<Entry, kWays> entries;
  };

  static constexpr std::uint64_t kMixer = 0x9E3779B97F4A7C15;
  static std::uint64_t seal(std::uint64_t rule) noexcept { return rule * kMixer; }
  static std::size_t bucketOf(std::uint64_t key) noexcept { return key * kMixer >> (64 - kBucketBits); }

  std::array<Bucket, std::size_t{1} << kBucketBits> buckets_;
  std::atomic<std::uint32_t> evictions_{0};
};

/// The one of the process.
extern RuleCache ruleCache;

}  // namespace core

#include "Core/Memory/Dictionary.h"

#include <sys/auxv.h>

namespace core {
namespace {

/// The 16 random bytes that the kernel gives every process.
std::uint64_t processSeed() noexcept {
  std::uint64_t seed = 0x9E3779B97F4A7C15U;
  if (const auto* random = reinterpret_cast<const char*>(getauxval(AT_RANDOM))) {
    std::memcpy(&seed, random, sizeof seed);
  }
  return seed;
}

}  // namespace

std::uint64_t hashOfKey(std::string_view key) noexcept {
  static std::atomic<std::uint64_t> seed{0};
  std::uint64_t hash = seed.load(std::memory_order_relaxed);
  if (hash == 0) {
    hash = processSeed() | 1;
    seed.store(hash, std::memory_order_relaxed);
  }
  for (const char byte : key) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3U;
    hash ^= hash >> 29;
  }
  return hash ^ (hash >> 32);
}

}  // namespace core

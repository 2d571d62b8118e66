#include "Core/Memory/Checksum.h"

#include <array>
#include <cstring>

namespace core {
namespace {

constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
constexpr std::size_t kWord = sizeof(std::uint64_t);

std::uint64_t mixed(std::uint64_t sum, std::uint64_t word) noexcept {
  sum = (sum ^ word) * kFactor;
  return sum ^ sum >> 32;
}

}  // namespace

// Four sums side by side, since each step waits for the one before.
std::uint32_t checksum(const void* bytes, std::size_t size) noexcept {
  std::array<std::uint64_t, 4> sums{1, 2, 3, 4};
  const auto* next = static_cast<const unsigned char*>(bytes);
  std::size_t left = size;
  for (; left >= sums.size() * kWord; left -= sums.size() * kWord) {
    for (std::uint64_t& sum : sums) {
      std::uint64_t word;
      std::memcpy(&word, next, kWord);
      sum = mixed(sum, word);
      next += kWord;
    }
  }
  std::uint64_t whole = size;
  for (const std::uint64_t sum : sums) {
    whole = mixed(whole, sum);
  }
  while (left != 0) {
    const std::size_t taken = left < kWord ? left : kWord;
    std::uint64_t word = 0;
    std::memcpy(&word, next, taken);
    whole = mixed(whole, word);
    next += taken;
    left -= taken;
  }
  const auto folded = static_cast<std::uint32_t>(whole ^ whole >> 32);
  return folded != 0 ? folded : 1;
}

}  // namespace core

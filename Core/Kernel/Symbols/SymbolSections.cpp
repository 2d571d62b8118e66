#include "Core/Kernel/Symbols/SymbolSections.h"

#include <algorithm>
#include <array>
#include <span>

#include "Core/Kernel/DynamicSection.h"

namespace core {
namespace {

constexpr std::uint64_t kMostWords = std::uint64_t{1} << 24;
constexpr std::size_t kWordsAtOnce = 512;

/// Calls `visit(word)` for words from `address` on until it answers false; false when one of them
/// cannot be read.
template <class Visit>
bool visitWords(const OwnMemory& memory, std::uint64_t address, std::uint64_t count, Visit&& visit) noexcept {
  std::array<std::uint32_t, kWordsAtOnce> words;
  for (std::uint64_t first = 0; first < count; first += kWordsAtOnce) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(count - first, kWordsAtOnce));
    const std::size_t bytes =
        memory.readFront(address + first * sizeof words[0], words.data(), wanted * sizeof words[0]);
    const std::size_t taken = bytes / sizeof words[0];
    for (const std::uint32_t word : std::span(words).first(taken)) {
      if (!visit(word)) {
        return true;
      }
    }
    if (taken < wanted) {
      return false;
    }
  }
  return true;
}

std::uint64_t countInSystemVHash(std::uint64_t table, const OwnMemory& memory) noexcept {
  struct {
    std::uint32_t buckets;
    std::uint32_t chains;  // one a symbol
  } head;
  return table != 0 && memory.read(table, &head, sizeof head) ? head.chains : 0;
}

/// Symbols stand in the order of their buckets: the last one ends the chain of the bucket that
/// begins last.
std::uint64_t countInGnuHash(std::uint64_t table, const OwnMemory& memory) noexcept {
  struct {
    std::uint32_t buckets;
    std::uint32_t firstHashed;
    std::uint32_t bloomWords;  // of 8 bytes
    std::uint32_t bloomShift;
  } head;
  if (table == 0 || !memory.read(table, &head, sizeof head) || head.buckets > kMostWords) {
    return 0;
  }
  const std::uint64_t buckets = table + sizeof head + std::uint64_t{head.bloomWords} * sizeof(std::uint64_t);
  std::uint32_t last = 0;
  const auto takeLater = [&last](std::uint32_t word) {
    last = std::max(last, word);
    return true;
  };
  if (!visitWords(memory, buckets, head.buckets, takeLater)) {
    return 0;
  }
  if (last < head.firstHashed) {
    return head.firstHashed;
  }
  const std::uint64_t chains = buckets + std::uint64_t{head.buckets} * sizeof(std::uint32_t);
  const std::uint64_t from = chains + (std::uint64_t{last} - head.firstHashed) * sizeof(std::uint32_t);
  std::uint64_t count = last;
  const bool isRead = visitWords(memory, from, kMostWords, [&count](std::uint32_t hash) {
    ++count;
    return (hash & 1) == 0;
  });
  return isRead ? count : 0;
}

}  // namespace

SymbolSections exportedSymbols(const ImageHeaders& headers, const OwnMemory& memory) noexcept {
  const DynamicSection section = DynamicSection::read(headers, memory);
  if (section.symbols == 0 || section.names == 0) {
    return {};
  }
  const std::uint64_t told = countInSystemVHash(section.systemVHash, memory);
  const std::uint64_t count = told != 0 ? told : countInGnuHash(section.gnuHash, memory);
  return {section.symbols, count, section.names, section.namesSize};
}

}  // namespace core

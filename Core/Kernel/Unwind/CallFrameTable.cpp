#include "Core/Kernel/Unwind/CallFrameTable.h"

#include <algorithm>
#include <utility>

namespace core {
namespace {

struct IndexPair {
  std::int32_t start;
  std::int32_t entry;
};
static_assert(sizeof(IndexPair) == 8);

IndexPair pairAt(const std::uint8_t* pairs, std::size_t index) noexcept {
  IndexPair pair;
  std::memcpy(&pair, pairs + index * sizeof pair, sizeof pair);
  return pair;
}

/// The last of `count` sorted pairs, one at least, that starts at or before `distance`; the
/// first where none does. The compiler makes this free of branches.
IndexPair lastNotBeyond(const std::uint8_t* pairs, std::size_t count, std::int64_t distance) noexcept {
  std::size_t first = 0;
  while (count > 1) {
    const std::size_t half = count / 2;
    first = pairAt(pairs, first + half).start <= distance ? first + half : first;
    count -= half;
  }
  return pairAt(pairs, first);
}

/// The same in memory that may vanish: single probes until a block holds the rest.
bool lastNotBeyond(const OwnMemory& memory, std::uint64_t pairs, std::size_t count, std::int64_t distance,
                   IndexPair& found) noexcept {
  TableBlock block;
  constexpr std::size_t kInBlock = sizeof block / sizeof found;
  while (count > kInBlock) {
    const std::size_t half = count / 2;
    const std::uint64_t middle = pairs + half * sizeof found;
    if (!memory.read(middle, &found, sizeof found)) {
      return false;
    }
    pairs = found.start <= distance ? middle : pairs;
    count -= half;
  }
  if (!memory.read(pairs, block.data(), count * sizeof found)) {
    return false;
  }
  found = lastNotBeyond(block.data(), count, distance);
  return true;
}

}  // namespace

ByteCursor TableStretch::cursor(const OwnMemory& memory, TableBlock& block, std::uint64_t address) const noexcept {
  const std::uint64_t offset = address - start;
  if (offset > end - start) {
    ByteCursor nothing({}, address);
    nothing.fail();
    return nothing;
  }
  if (offset < copy.size()) {
    return {copy.span().subspan(offset), address};
  }
  return {memory, block, address, end};
}

bool CallFrameTable::function(const OwnMemory& memory, std::size_t number, Function& into) const noexcept {
  IndexPair pair;
  if (!index.copy.empty()) {
    pair = pairAt(index.copy.data(), number);
  } else if (!memory.read(index.start + number * sizeof pair, &pair, sizeof pair)) {
    return false;
  }
  into = {atDistance(pair.start), atDistance(pair.entry)};
  return true;
}

void TableStretch::makeCopy(const OwnMemory& memory) noexcept {
  const std::size_t size = end - start;
  if (copy.size() == size) {
    return;
  }
  bool isRead = false;
  Bytes bytes = Bytes::filled(size, [&](char* into) { isRead = memory.read(start, into, size); });
  copy = isRead ? Data(std::move(bytes)) : Data();
}

std::uint64_t CallFrameTable::find(const OwnMemory& memory, std::uint64_t address) const noexcept {
  const auto distance = static_cast<std::int64_t>(address - anchor);
  const std::size_t count = functionCount();
  IndexPair found;
  if (count == 0) {
    return 0;
  }
  if (!index.copy.empty()) {
    found = lastNotBeyond(index.copy.data(), count, distance);
  } else if (!lastNotBeyond(memory, index.start, count, distance, found)) {
    return 0;
  }
  return found.start <= distance ? atDistance(found.entry) : 0;
}

}  // namespace core

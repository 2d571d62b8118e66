#include "Core/Kernel/Unwind/TableLoader.h"

#include <algorithm>

#include "Core/Kernel/Unwind/CallFrameEntry.h"
#include "Core/Kernel/Unwind/EncodedPointer.h"
#include "Core/Kernel/Unwind/FileSections.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/CrashOwner.h"

namespace core {
namespace {

constexpr std::uint8_t kHeaderVersion = 1;
constexpr std::uint8_t kIndexEncoding = 0x3B;  // signed 4 bytes, from the header's start
constexpr std::size_t kIndexPairSize = 8;
constexpr std::size_t kBlock = std::size_t{64} << 10;
constexpr std::size_t kMostEntries = std::size_t{4} << 20;

/// What .eh_frame_hdr tells: where the entries are, and their index when it is of the usual kind.
void readHeader(const ImageHeaders& headers, const OwnMemory& memory, CallFrameTable& table) noexcept {
  const AddressRange range = headers.segmentOfType(PT_GNU_EH_FRAME);
  if (range.empty()) {
    return;
  }
  TableBlock block;
  ByteCursor cursor(memory, block, range.start, range.end);
  const PointerBases bases{.data = range.start};
  const std::uint8_t version = cursor.byte();
  const std::uint8_t placeEncoding = cursor.byte();
  const std::uint8_t countEncoding = cursor.byte();
  const std::uint8_t indexEncoding = cursor.byte();
  const std::uint64_t entries = takePointer(cursor, placeEncoding, bases, memory);
  const std::uint64_t count = takePointer(cursor, countEncoding, bases, memory);
  const AddressRange segment = headers.segmentCovering(entries);
  if (version != kHeaderVersion || cursor.failed() || segment.empty()) {
    return;
  }
  table.anchor = range.start;
  table.entries = {entries, segment.end, {}};
  if (indexEncoding == kIndexEncoding && countEncoding != kOmittedPointer &&
      count <= (range.end - cursor.address()) / kIndexPairSize) {
    table.index = {cursor.address(), cursor.address() + count * kIndexPairSize, {}};
  }
}

struct IndexPair {
  std::int32_t start;
  std::int32_t entry;
};
static_assert(sizeof(IndexPair) == kIndexPairSize);

bool asDistance(std::uint64_t address, std::uint64_t anchor, std::int32_t& distance) noexcept {
  distance = static_cast<std::int32_t>(address - anchor);
  return anchor + static_cast<std::uint64_t>(std::int64_t{distance}) == address;
}

}  // namespace

CallFrameTable TableLoader::load(const ImageHeaders& headers, const String& path) noexcept {
  CallFrameTable table;
  readHeader(headers, memory_, table);
  if (CrashOwner::isCurrentThread()) {
    return table;
  }
  if (table.entries.empty()) {
    const AddressRange section = sectionInFile(headers, path, ".eh_frame");
    table.entries = {section.start, section.end, {}};
  }
  if (table.entries.empty()) {
    return table;
  }
  // Up to their end marker, not the segment's.
  table.entries.end = visitEntries(table.entries, [](std::uint64_t, const EntryHead&) {});
  copy(table.entries);
  if (table.index.empty()) {
    makeIndex(table);
  } else {
    copy(table.index);
  }
  return table;
}

/// Calls `visit(address, head)` for each entry of either kind; answers where they end.
template <class Visit>
std::uint64_t TableLoader::visitEntries(const TableStretch& entries, Visit&& visit) noexcept {
  block_ = block_ != nullptr ? block_ : static_cast<std::uint8_t*>(core::allocate(kBlock));
  ByteCursor cursor(memory_, {block_, kBlock}, entries.start, entries.end);
  EntryHead head;
  for (std::size_t i = 0; i < kMostEntries; ++i) {
    const std::uint64_t address = cursor.address();
    if (!EntryHead::take(cursor, head)) {
      return address;
    }
    visit(address, head);
    cursor.moveTo(head.end);
  }
  return entries.start;
}

void TableLoader::makeIndex(CallFrameTable& table) noexcept {
  Array<IndexPair> pairs;
  CallFrameCommon common;
  table.anchor = table.entries.start;
  visitEntries(table.entries, [&](std::uint64_t address, const EntryHead& head) {
    CallFrameEntry entry;
    IndexPair pair;
    if (head.id != 0 && entry.read(table, memory_, address, common) && entry.size != 0 &&
        asDistance(entry.start, table.anchor, pair.start) && asDistance(address, table.anchor, pair.entry)) {
      pairs.append(pair);
    }
  });
  std::sort(pairs.begin(), pairs.end(), [](const IndexPair& a, const IndexPair& b) { return a.start < b.start; });
  // It stands nowhere in memory: only its size counts beside the copy.
  table.index = {0, pairs.size() * kIndexPairSize, Data(pairs.data(), pairs.size() * kIndexPairSize)};
}

void TableLoader::copy(TableStretch& stretch) noexcept {
  const std::size_t size = stretch.end - stretch.start;
  if (size > room_) {
    return;
  }
  stretch.makeCopy(memory_);
  room_ -= stretch.copy.size();
}

}  // namespace core

#include "Core/Kernel/Unwind/CallFrameEntry.h"

#include "Core/Kernel/Unwind/CallFrameProgram.h"
#include "Core/Kernel/Unwind/EncodedPointer.h"

namespace core {
namespace {

constexpr std::uint32_t kLongLength = 0xFFFFFFFF;
constexpr std::size_t kMostLetters = 16;
constexpr std::uint8_t kFormatBits = 0x0F;
constexpr std::uint8_t kDirectBits = 0x7F;

/// Takes the augmentation text; false when it has no end within reason.
bool takeLetters(ByteCursor& cursor, std::array<char, kMostLetters>& letters, std::size_t& count) noexcept {
  for (count = 0; count < letters.size(); ++count) {
    letters[count] = static_cast<char>(cursor.byte());
    if (letters[count] == '\0') {
      return !cursor.failed();
    }
  }
  return false;
}

}  // namespace

bool EntryHead::take(ByteCursor& cursor, EntryHead& head) noexcept {
  std::uint64_t length = cursor.take<std::uint32_t>();
  if (length == kLongLength) {
    length = cursor.take<std::uint64_t>();
  }
  head.idPlace = cursor.address();
  head.end = head.idPlace + length;
  head.id = cursor.take<std::uint32_t>();
  return !cursor.failed() && length >= sizeof head.id && head.end > head.idPlace;
}

bool CallFrameEntry::read(const CallFrameTable& table, const OwnMemory& memory, std::uint64_t place,
                          CallFrameCommon& common) noexcept {
  TableBlock block;
  ByteCursor cursor = table.entries.cursor(memory, block, place);
  EntryHead head;
  if (!EntryHead::take(cursor, head) || head.id == 0) {
    return false;
  }
  const std::uint64_t commonPlace = head.idPlace - head.id;
  if (commonPlace == 0 || (common.address != commonPlace && !common.read(table, memory, commonPlace))) {
    return false;
  }
  const PointerBases bases{.data = table.anchor};
  cursor.endAt(head.end);
  start = takePointer(cursor, common.pointerEncoding, bases, memory);
  size = takePointer(cursor, common.pointerEncoding & kFormatBits, bases, memory);
  if (common.hasAugmentationData) {
    cursor.skip(cursor.unsignedLeb());
  }
  program = cursor.address();
  programEnd = head.end;
  return !cursor.failed() && size <= ~start;  // no code runs over the end of all addresses
}

bool CallFrameCommon::read(const CallFrameTable& table, const OwnMemory& memory, std::uint64_t place) noexcept {
  address = 0;
  TableBlock block;
  ByteCursor cursor = table.entries.cursor(memory, block, place);
  EntryHead head;
  if (!EntryHead::take(cursor, head) || head.id != 0) {
    return false;
  }
  cursor.endAt(head.end);
  if (!readHeader(cursor, memory) || !computeInitialRow(table, *this, memory, cursor)) {
    return false;
  }
  address = place;
  return true;
}

bool CallFrameCommon::readHeader(ByteCursor& cursor, const OwnMemory& memory) noexcept {
  const std::uint8_t version = cursor.byte();
  std::array<char, kMostLetters> letters;
  std::size_t count = 0;
  if ((version != 1 && version != 3 && version != 4) || !takeLetters(cursor, letters, count)) {
    return false;
  }
  std::span<const char> rest(letters.data(), count);
  if (count >= 2 && rest[0] == 'e' && rest[1] == 'h') {  // an old compiler's pointer to its own data
    cursor.skip(sizeof(std::uint64_t));
    rest = rest.subspan(2);
  }
  if (version == 4 && (cursor.byte() != sizeof(std::uint64_t) || cursor.byte() != 0)) {
    return false;  // addresses of another size, or segments
  }
  codeFactor = cursor.unsignedLeb();
  dataFactor = static_cast<std::uint64_t>(cursor.signedLeb());
  returnColumn = version == 1 ? cursor.byte() : cursor.unsignedLeb();
  pointerEncoding = 0;
  isSignalFrame = false;
  return readAugmentation(cursor, rest, memory) && !cursor.failed();
}

/// Leaves the cursor at the initial program.
bool CallFrameCommon::readAugmentation(ByteCursor& cursor, std::span<const char> letters,
                                       const OwnMemory& memory) noexcept {
  hasAugmentationData = !letters.empty() && letters[0] == 'z';
  std::uint64_t end = 0;
  if (hasAugmentationData) {
    letters = letters.subspan(1);
    const std::uint64_t dataSize = cursor.unsignedLeb();
    end = cursor.address() + dataSize;
  }
  bool isKnown = true;
  for (std::size_t i = 0; i < letters.size() && isKnown; ++i) {
    switch (letters[i]) {
      case 'R':
        pointerEncoding = cursor.byte();
        break;
      case 'P': {  // the address of a routine that is of no use here: only its size is
        const std::uint8_t encoding = cursor.byte();
        takePointer(cursor, encoding == kOmittedPointer ? encoding : encoding & kDirectBits, {}, memory);
        break;
      }
      case 'L':
        cursor.byte();
        break;
      case 'S':
        isSignalFrame = true;
        break;
      case 'B':
        break;
      default:
        isKnown = false;  // and with it the rest, but not where they end
    }
  }
  if (hasAugmentationData) {
    cursor.moveTo(end);
  }
  return isKnown || hasAugmentationData;
}

}  // namespace core

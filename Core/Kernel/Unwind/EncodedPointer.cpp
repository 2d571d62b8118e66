#include "Core/Kernel/Unwind/EncodedPointer.h"

namespace core {
namespace {

enum Format : std::uint8_t {
  kAbsolute = 0x00,
  kUnsignedLeb = 0x01,
  kUnsigned2 = 0x02,
  kUnsigned4 = 0x03,
  kUnsigned8 = 0x04,
  kSigned = 0x08,
  kSignedLeb = 0x09,
  kSigned2 = 0x0A,
  kSigned4 = 0x0B,
  kSigned8 = 0x0C
};

enum Base : std::uint8_t { kToNothing = 0x00, kToPlace = 0x10, kToText = 0x20, kToData = 0x30, kToFunction = 0x40 };

constexpr std::uint8_t kAligned = 0x50;
constexpr std::uint8_t kIndirect = 0x80;

std::uint64_t takeFormatted(ByteCursor& cursor, std::uint8_t format) noexcept {
  switch (format) {
    case kAbsolute:
    case kSigned:
    case kUnsigned8:
    case kSigned8:
      return cursor.take<std::uint64_t>();
    case kUnsignedLeb:
      return cursor.unsignedLeb();
    case kUnsigned2:
      return cursor.take<std::uint16_t>();
    case kUnsigned4:
      return cursor.take<std::uint32_t>();
    case kSignedLeb:
      return static_cast<std::uint64_t>(cursor.signedLeb());
    case kSigned2:
      return static_cast<std::uint64_t>(cursor.take<std::int16_t>());
    case kSigned4:
      return static_cast<std::uint64_t>(cursor.take<std::int32_t>());
    default:
      cursor.fail();
      return 0;
  }
}

}  // namespace

std::uint64_t takePointer(ByteCursor& cursor, std::uint8_t encoding, const PointerBases& bases,
                          const OwnMemory& memory) noexcept {
  if (encoding == kOmittedPointer) {
    return 0;
  }
  if (encoding == kAligned) {
    cursor.skip(-cursor.address() % sizeof(std::uint64_t));
    return cursor.take<std::uint64_t>();
  }
  const std::uint64_t place = cursor.address();
  std::uint64_t value = takeFormatted(cursor, encoding & 0x0F);
  if (value == 0) {
    return 0;  // null, whatever it is relative to
  }
  switch (encoding & 0x70) {
    case kToNothing:
      break;
    case kToPlace:
      value += place;
      break;
    case kToText:
      value += bases.text;
      break;
    case kToData:
      value += bases.data;
      break;
    case kToFunction:
      value += bases.function;
      break;
    default:
      cursor.fail();
  }
  if ((encoding & kIndirect) != 0 && !cursor.failed() && !memory.read(value, &value, sizeof value)) {
    cursor.fail();
  }
  return value;
}

}  // namespace core

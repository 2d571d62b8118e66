#pragma once

#include <cstdint>

#include "Kiv/common/wex/BufferReader.h"

namespace analyticsyut {

/// What stands before every field: its tag (0 to 255, the field's place in its record) and the
/// code of how its value is written. One byte, the tag in the high half and the type in the low
/// one; for tags above 14 two, 15 in the high half of the first, the tag in the second.
struct DataHead {
  enum Type : std::uint8_t {
    kChar = 0,          // 1 byte, signed
    kShort = 1,         // 2 bytes, big-endian as all numbers
    kInt32 = 2,         // 4 bytes
    kInt64 = 3,         // 8 bytes
    kFloat = 4,         // 4 bytes, only ever skipped
    kDouble = 5,        // 8 bytes, only ever skipped
    kString1 = 6,       // 1 byte of length, the bytes
    kString4 = 7,       // 4 bytes of length, the bytes
    kMap = 8,           // count (a field with tag 0), then keys (tag 0) and values (tag 1) in turn
    kList = 9,          // count (a field with tag 0), then elements (tag 0)
    kStructBegin = 10,  // fields, then kStructEnd
    kStructEnd = 11,    // nothing
    kZeroTag = 12,      // nothing: the number 0 of any width
    kSimpleList = 13,   // the byte 0, count (a field with tag 0), the bytes
  };
  static constexpr std::uint8_t kHighestType = kSimpleList;
  static constexpr std::uint8_t kHighestShortTag = 14;
  static constexpr std::size_t kLargestSize = 2;

  std::uint8_t type = 0;
  std::uint8_t tag = 0;

  /// Writes a head of at most kLargestSize bytes at `at`, answers where it ends.
  static std::uint8_t* writeTo(std::uint8_t* at, std::uint8_t type, std::uint8_t tag) noexcept {
    if (tag > kHighestShortTag) {
      *at++ = static_cast<std::uint8_t>(0xF0 | type);
      *at++ = tag;
    } else {
      *at++ = static_cast<std::uint8_t>(tag << 4 | type);
    }
    return at;
  }

  /// Reads the head at the cursor, which stays; answers the head's size.
  std::size_t peekFrom(const BufferReader& stream) {
    std::uint8_t byte = 0;
    stream.peekBuf(&byte, 1);
    type = byte & 0x0F;
    tag = static_cast<std::uint8_t>(byte >> 4);
    if (tag <= kHighestShortTag) {
      return 1;
    }
    stream.peekBuf(&tag, 1, 1);
    return 2;
  }
};

}  // namespace analyticsyut

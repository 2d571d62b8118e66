#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The layout that encoder and decoder of binary property lists share: magic, objects, a
/// table of their offsets, trailer. All numbers are big-endian.
namespace core::bplist {

inline constexpr std::string_view kMagic = "bplist00";

/// Five unused bytes, sort version, bytes of an offset, bytes of a reference (one byte each), then
/// number of objects, number of the root object and offset of the offset table (8 each).
inline constexpr std::size_t kTrailerSize = 32;

/// An object begins with a kind and, in the low four bits, its size: of numbers the power of
/// two, of a UID the bytes less one, else the count of bytes, UTF-16 units, items or entries.
enum Kind : std::uint8_t {
  kNull = 0x00,
  kFalse = 0x08,
  kTrue = 0x09,
  kInteger = 0x10,  // signed only from 8 bytes on
  kReal = 0x20,
  kDate = 0x30,
  kData = 0x40,
  kAscii = 0x50,
  kUtf16 = 0x60,
  kUid = 0x80,
  kArray = 0xA0,
  kSet = 0xC0,
  kDictionary = 0xD0,  // references of all keys, then of all values
};

/// In the low bits: the count follows as an integer object.
inline constexpr std::uint8_t kCountFollows = 0x0F;

}  // namespace core::bplist

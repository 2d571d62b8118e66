#pragma once

#include <algorithm>
#include <bit>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/SortedMap.h"
#include "Kiv/common/wex/BufferReader.h"
#include "Kiv/common/wex/DataHead.h"
#include "Kiv/common/wex/WexFields.h"

namespace analyticsyut {

/// Reads tagged fields from bytes that the caller keeps alive, and passes over what it does
/// not know. read(value, tag, isRequired) leaves `value` alone when the field is missing and
/// not required; every fault throws WexDecodeException and may leave `value` partly filled.
///
/// Safe against any bytes: what is passed over nests kDeepestNesting levels at most, and no
/// count or length takes more memory than there are bytes left to fill it.
class WexInputStream : public BufferReader {
 public:
  static constexpr std::uint32_t kLongestString = 0x6400000;  // 100 MiB
  static constexpr int kDeepestNesting = 64;                  // records nest 5 deep

  using BufferReader::BufferReader;

  /// Where the line about a fault inside skipToTag goes: standard output, unless set (for
  /// nullptr: standard output again). One for the process; any thread.
  using WarningSink = void (*)(std::string_view line);
  static void setWarningSink(WarningSink sink) noexcept;

  void read(std::int8_t& value, std::uint8_t tag, bool isRequired) { readNumber(value, tag, isRequired); }
  void read(std::int16_t& value, std::uint8_t tag, bool isRequired) { readNumber(value, tag, isRequired); }
  void read(std::int32_t& value, std::uint8_t tag, bool isRequired) { readNumber(value, tag, isRequired); }
  void read(std::int64_t& value, std::uint8_t tag, bool isRequired) { readNumber(value, tag, isRequired); }
  void read(bool& value, std::uint8_t tag, bool isRequired) {
    auto byte = static_cast<std::int8_t>(value);
    readNumber(byte, tag, isRequired);
    value = byte != 0;
  }
  void read(core::String& value, std::uint8_t tag, bool isRequired);
  void read(core::Data& value, std::uint8_t tag, bool isRequired);

  /// Of equal keys the first one counts.
  template <class V>
  void read(core::SortedMap<V>& map, std::uint8_t tag, bool isRequired) {
    std::uint8_t type = 0;
    if (!enter(tag, isRequired, type)) {
      return;
    }
    const std::int32_t count = readMapCount(tag, type);
    map.clear();
    using Entry = typename core::SortedMap<V>::Entry;
    core::Array<Entry> entries;
    entries.reserve(roomFor<Entry>(count));
    for (std::int32_t i = 0; i < count; ++i) {
      Entry& entry = entries.emplace();
      read(entry.key, 0, true);
      read(entry.value, 1, true);
    }
    map = core::SortedMap<V>(std::move(entries));
  }

  template <class T>
  void read(core::Array<T>& list, std::uint8_t tag, bool isRequired) {
    std::uint8_t type = 0;
    if (!enter(tag, isRequired, type)) {
      return;
    }
    const std::int32_t count = readListCount(tag, type);
    list.clear();
    list.reserve(roomFor<T>(count));
    for (std::int32_t i = 0; i < count; ++i) {
      read(list.emplace(), 0, true);
    }
  }

  template <WexRecord Record>
  void read(Record& record, std::uint8_t tag, bool isRequired) {
    std::uint8_t type = 0;
    if (!enter(tag, isRequired, type)) {
      return;
    }
    if (type != DataHead::kStructBegin) {
      throwMismatch("struct", tag, type);
    }
    record.readFrom(*this);
    skipToStructEnd();
  }

  /// Whether the field is there; the cursor is then in front of it. Fields with lower tags are
  /// passed over; a fault there is told to the warning sink and makes the field a missing one.
  ///
  /// The end of a record counts as a head with tag 0, so that looking there for tag 0 finds it.
  bool skipToTag(std::uint8_t tag) {
    if (left() != 0) [[likely]] {
      const std::uint8_t byte = buffer()[position()];
      const unsigned headTag = byte >> 4;
      if (headTag <= DataHead::kHighestShortTag && (headTag >= tag || (byte & 0x0F) == DataHead::kStructEnd)) {
        return headTag == tag;
      }
    }
    return skipToTagSlowly(tag);
  }
  void skipField();
  void skipField(std::uint8_t type);
  void skipToStructEnd();

 private:
  class Nesting;

  /// False when the field is missing. Else the cursor is behind the head of the field of `type`.
  bool enter(std::uint8_t tag, bool isRequired, std::uint8_t& type) {
    if (!skipToTag(tag)) [[unlikely]] {
      if (isRequired) {
        throwMissing(tag);
      }
      return false;
    }
    skipHead(type);
    return true;
  }
  void skipHead(std::uint8_t& type) {
    DataHead head;
    skip(head.peekFrom(*this));
    type = head.type;
  }

  template <class Number>
  void readNumber(Number& value, std::uint8_t tag, bool isRequired) {
    if (!skipToTag(tag)) [[unlikely]] {
      if (isRequired) {
        sizeof(Number) == 1 ? throwMissingChar(tag) : throwMissing(tag);
      }
      return;
    }
    std::uint8_t type = 0;
    skipHead(type);
    if (type == DataHead::kZeroTag) {
      value = 0;
    } else if (type == DataHead::kChar) {
      value = static_cast<std::int8_t>(*take(1));
    } else if (type == DataHead::kShort && sizeof(Number) >= 2) {
      value = static_cast<Number>(static_cast<std::int16_t>(takeBigEndian<std::uint16_t>()));
    } else if (type == DataHead::kInt32 && sizeof(Number) >= 4) {
      value = static_cast<Number>(static_cast<std::int32_t>(takeBigEndian<std::uint32_t>()));
    } else if (type == DataHead::kInt64 && sizeof(Number) == 8) {
      value = static_cast<Number>(takeBigEndian<std::uint64_t>());
    } else {
      throwMismatch(sizeof(Number) == 1   ? "Char"
                    : sizeof(Number) == 2 ? "Short"
                    : sizeof(Number) == 4 ? "Int32"
                                          : "Int64",
                    tag, type);
    }
  }

  template <class Unsigned>
  Unsigned takeBigEndian() {
    static_assert(std::endian::native == std::endian::little);
    Unsigned value;
    std::memcpy(&value, take(sizeof value), sizeof value);
    if constexpr (sizeof value == 2) {
      return __builtin_bswap16(value);
    } else if constexpr (sizeof value == 4) {
      return __builtin_bswap32(value);
    } else {
      return __builtin_bswap64(value);
    }
  }

  /// How many of `count` announced items to make room for ahead: as many as the bytes left would
  /// fill, for the count may be a lie. More of them, being smaller on the wire, grow the array.
  template <class Item>
  std::size_t roomFor(std::int32_t count) const noexcept {
    return std::min(static_cast<std::size_t>(count), static_cast<std::size_t>(left() / sizeof(Item)));
  }

  bool skipToTagSlowly(std::uint8_t tag);
  std::int32_t readCount();
  std::int32_t readMapCount(std::uint8_t tag, std::uint8_t type);
  std::int32_t readListCount(std::uint8_t tag, std::uint8_t type);
  core::Data readByteList(std::uint8_t tag, std::uint8_t type);
  core::Data readSimpleList(std::uint8_t tag, std::uint8_t type);
  void skipFields(std::int64_t count);
  void skipSimpleList();

  [[noreturn]] static void throwMissing(std::uint8_t tag);
  [[noreturn]] static void throwMissingChar(std::uint8_t tag);
  [[noreturn]] static void throwMismatch(std::string_view wanted, std::uint8_t tag, std::uint8_t type);

  int nesting_ = 0;
};

}  // namespace analyticsyut

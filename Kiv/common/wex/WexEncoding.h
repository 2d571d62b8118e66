#pragma once

#include <bit>
#include <concepts>
#include <cstring>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/SortedMap.h"
#include "Kiv/common/wex/DataHead.h"
#include "Kiv/common/wex/WexFields.h"

namespace analyticsyut {

/// How each kind of value becomes a field: bound() is the most bytes that it can take, put()
/// writes it where that many have room and answers its end. So the output stream asks for room
/// once, whatever is in the value, and a field is a few stores.
///
/// bound() throws WexDecodeException for a text beyond kLongestString.
struct WexEncoding {
  static constexpr std::size_t kLongestString = 0x6400000;  // 100 MiB, the receivers' limit
  static constexpr std::size_t kLargestHead = DataHead::kLargestSize;
  static constexpr std::size_t kLargestNumber = kLargestHead + sizeof(std::int64_t);

  template <class N>
  requires std::signed_integral<N> || std::same_as<N, bool>
  static constexpr std::size_t bound(N, std::uint8_t) noexcept { return kLargestNumber; }
  template <class N>
  requires std::signed_integral<N> || std::same_as<N, bool>
  static std::uint8_t* put(std::uint8_t* at, N value, std::uint8_t tag) noexcept {
    return putNumber(at, static_cast<std::int64_t>(value), tag);
  }

  static std::size_t bound(std::string_view text, std::uint8_t tag) {
    if (text.size() > kLongestString) [[unlikely]] {
      throwInvalidSize(tag, text.size());
    }
    return kLargestHead + sizeof(std::uint32_t) + text.size();
  }
  static std::uint8_t* put(std::uint8_t* at, std::string_view text, std::uint8_t tag) noexcept {
    if (text.size() < 256) {
      at = DataHead::writeTo(at, DataHead::kString1, tag);
      *at++ = static_cast<std::uint8_t>(text.size());
    } else {
      at = DataHead::writeTo(at, DataHead::kString4, tag);
      at = putBigEndian(at, static_cast<std::uint32_t>(text.size()));
    }
    return putBytes(at, text.data(), text.size());
  }

  static std::size_t bound(const core::Data& bytes, std::uint8_t) noexcept {
    return kLargestHead + 1 + kLargestNumber + bytes.size();
  }
  static std::uint8_t* put(std::uint8_t* at, const core::Data& bytes, std::uint8_t tag) noexcept {
    at = DataHead::writeTo(at, DataHead::kSimpleList, tag);
    *at++ = 0;
    at = putCount(at, bytes.size());
    return putBytes(at, bytes.data(), bytes.size());
  }

  template <class V>
  static std::size_t bound(const core::SortedMap<V>& map, std::uint8_t) {
    std::size_t size = kLargestHead + kLargestNumber;
    for (const auto& [key, value] : map) {
      size += bound(key, 0) + bound(value, 1);
    }
    return size;
  }
  template <class V>
  static std::uint8_t* put(std::uint8_t* at, const core::SortedMap<V>& map, std::uint8_t tag) noexcept {
    at = DataHead::writeTo(at, DataHead::kMap, tag);
    at = putCount(at, map.size());
    for (const auto& [key, value] : map) {
      at = put(at, key, 0);
      at = put(at, value, 1);
    }
    return at;
  }

  template <class T>
  static std::size_t bound(const core::Array<T>& list, std::uint8_t) {
    std::size_t size = kLargestHead + kLargestNumber;
    for (const T& item : list) {
      size += bound(item, 0);
    }
    return size;
  }
  template <class T>
  static std::uint8_t* put(std::uint8_t* at, const core::Array<T>& list, std::uint8_t tag) noexcept {
    at = DataHead::writeTo(at, DataHead::kList, tag);
    at = putCount(at, list.size());
    for (const T& item : list) {
      at = put(at, item, 0);
    }
    return at;
  }

  template <WexRecord Record>
  static std::size_t bound(const Record& record, std::uint8_t) {
    return 2 * kLargestHead + fieldsBound(record);
  }
  template <WexRecord Record>
  static std::uint8_t* put(std::uint8_t* at, const Record& record, std::uint8_t tag) noexcept {
    at = DataHead::writeTo(at, DataHead::kStructBegin, tag);
    at = putFields(at, record);
    return DataHead::writeTo(at, DataHead::kStructEnd, 0);
  }

  /// The same for a record's fields without the frame.
  template <WexRecord Record>
  static std::size_t fieldsBound(const Record& record) {
    std::size_t size = 0;
    visitFields<Record>([&](const auto& row) { size += bound(record.*row.member, row.kTag); });
    return size;
  }
  template <WexRecord Record>
  static std::uint8_t* putFields(std::uint8_t* at, const Record& record) noexcept {
    visitFields<Record>([&](const auto& row) { at = put(at, record.*row.member, row.kTag); });
    return at;
  }

 private:
  [[noreturn]] static void throwInvalidSize(std::uint8_t tag, std::size_t size);

  // Most texts are short: without a call, by two pieces that may overlap, a map is written twice as fast.
  static std::uint8_t* putBytes(std::uint8_t* at, const void* bytes, std::size_t size) noexcept {
    const auto* from = static_cast<const std::uint8_t*>(bytes);
    if (size > 32) {
      std::memcpy(at, from, size);
    } else if (size >= 16) {
      putEnds<16>(at, from, size);
    } else if (size >= 8) {
      putEnds<8>(at, from, size);
    } else {
      for (std::size_t i = 0; i < size; ++i) {
        at[i] = from[i];
      }
    }
    return at + size;
  }
  template <std::size_t kPiece>
  static void putEnds(std::uint8_t* at, const std::uint8_t* from, std::size_t size) noexcept {
    std::memcpy(at, from, kPiece);
    std::memcpy(at + size - kPiece, from + size - kPiece, kPiece);
  }

  template <class Unsigned>
  static std::uint8_t* putBigEndian(std::uint8_t* at, Unsigned value) noexcept {
    static_assert(std::endian::native == std::endian::little);
    if constexpr (sizeof value == 2) {
      value = __builtin_bswap16(value);
    } else if constexpr (sizeof value == 4) {
      value = __builtin_bswap32(value);
    } else {
      value = __builtin_bswap64(value);
    }
    std::memcpy(at, &value, sizeof value);
    return at + sizeof value;
  }

  static std::uint8_t* putCount(std::uint8_t* at, std::size_t count) noexcept {
    return putNumber(at, static_cast<std::int64_t>(count), 0);
  }
  static std::uint8_t* putNumber(std::uint8_t* at, std::int64_t value, std::uint8_t tag) noexcept {
    if (value == 0) {
      return DataHead::writeTo(at, DataHead::kZeroTag, tag);
    }
    if (value == static_cast<std::int8_t>(value)) {
      at = DataHead::writeTo(at, DataHead::kChar, tag);
      *at = static_cast<std::uint8_t>(value);
      return at + 1;
    }
    if (value == static_cast<std::int16_t>(value)) {
      at = DataHead::writeTo(at, DataHead::kShort, tag);
      return putBigEndian(at, static_cast<std::uint16_t>(value));
    }
    if (value == static_cast<std::int32_t>(value)) {
      at = DataHead::writeTo(at, DataHead::kInt32, tag);
      return putBigEndian(at, static_cast<std::uint32_t>(value));
    }
    at = DataHead::writeTo(at, DataHead::kInt64, tag);
    return putBigEndian(at, static_cast<std::uint64_t>(value));
  }
};

}  // namespace analyticsyut

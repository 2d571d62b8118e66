#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/Bytes.h"
#include "Core/PropertyList/BinaryPropertyListFormat.h"

namespace core::bplist {

/// A binary property list in the making: its objects, then its bytes. Whoever walks a value
/// adds leaves, which are kept once each, and containers, whose references are set one by one.
///
/// Objects are numbered from 0 in the order in which they are added. Text and data are borrowed
/// and must stay until write() has returned. Crash-path safe.
class ObjectTable {
 public:
  using Number = std::uint32_t;

  Number addText(std::string_view text) noexcept;
  Number addData(std::span<const std::uint8_t> data) noexcept;
  Number addBoolean(bool value) noexcept { return addLeaf({.marker = value ? kTrue : kFalse}); }
  Number addNull() noexcept { return addLeaf({.marker = kNull}); }
  Number addInteger(std::int64_t value) noexcept;
  /// For integers above the signed range.
  Number addLargeInteger(std::uint64_t value) noexcept { return addLeaf({.marker = kInteger | 4, .number = value}); }
  Number addReal(double value) noexcept;
  /// Seconds since the start of 2001.
  Number addDate(double seconds) noexcept;
  Number addUid(std::uint32_t value) noexcept;

  /// Containers of so many entries. An array has a reference for each, a dictionary one for each
  /// key and, behind them, one for each value.
  Number addArray(std::size_t entries) noexcept { return addContainer(kArray, entries, entries); }
  Number addDictionary(std::size_t entries) noexcept { return addContainer(kDictionary, entries, entries * 2); }
  void setReference(Number container, std::size_t at, Number object) noexcept {
    references_[objects_[container].number + at] = object;
  }

  std::size_t size() const noexcept { return objects_.size(); }

  /// The file. Every reference of every container has been set.
  Data write(Number root) const noexcept;

 private:
  friend class ObjectWriter;

  struct Object {
    std::uint8_t marker;       // with the size of numbers, without that of text, data and containers
    std::uint32_t hash = 0;    // of leaves
    std::uint64_t number = 0;  // bits of a number; bytes of text and data; first reference of a container
    const void* content = nullptr;
    std::size_t entries = 0;  // of a container

    std::string_view bytes() const noexcept {
      return content == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(content), number);
    }
  };

  Number addLeaf(Object leaf) noexcept;
  Number addContainer(Kind kind, std::size_t entries, std::size_t references) noexcept;
  void growIndex() noexcept;

  Array<Object> objects_;
  Array<Number> references_;
  Array<std::uint32_t> slots_;  // leaves by hash: object number + 1, 0 for a free slot
  std::size_t leaves_ = 0;
};

}  // namespace core::bplist

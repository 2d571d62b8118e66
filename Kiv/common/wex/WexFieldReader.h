#pragma once

#include <cstdint>
#include <span>

#include "Core/Memory/String.h"
#include "Kiv/common/wex/DataHead.h"

namespace analyticsyut {

/// One field as WexFieldReader meets it. What it holds is told by the type of its head.
struct WexFieldEvent {
  DataHead head;
  std::size_t offset = 0;               // of the head
  int depth = 0;                        // 0 for the outermost fields
  std::int64_t integer = 0;             // chars to 64-bit numbers and zeros; entries of maps, elements of lists
  double real = 0;                      // floats and doubles
  std::span<const std::uint8_t> bytes;  // strings and simple lists: part of the input
};

/// Is told what is in a stream, in order. Maps, lists and records begin and end; between, their
/// fields come one deeper, a map's keys and values in turn.
class WexFieldVisitor {
 public:
  virtual ~WexFieldVisitor() = default;
  virtual void value(const WexFieldEvent& field) = 0;
  virtual void begin(const WexFieldEvent& field) = 0;
  virtual void end(const WexFieldEvent& field) = 0;
};

/// Walks through tagged fields of any kind without knowing their record: for tools that show
/// what is in a file. Throws nothing; nests no deeper than WexInputStream does.
class WexFieldReader {
 public:
  /// How far a walk came, and why it ended before the end of the bytes ("" when it did not).
  struct Outcome {
    std::size_t offset = 0;
    core::String error;
  };
  static Outcome read(std::span<const std::uint8_t> bytes, WexFieldVisitor& visitor);
};

}  // namespace analyticsyut

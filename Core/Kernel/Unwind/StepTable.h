#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/Unwind/CallFrameTable.h"
#include "Core/Kernel/Unwind/StepRule.h"
#include "Core/Memory/Array.h"

namespace core {

/// The step rules of all of an image's code, worked out ahead of any walk, so that one finds a
/// rule in nanoseconds and needs neither the image nor a system call. Made in normal running and
/// never changed after that; looking up is fit for the crash path.
///
/// The code is cut into pieces of kPiece bytes. Each has a row for its start and one for every place
/// in it where another rule begins: 3 bytes a row and 4 a piece, together about as much as the
/// call-frame table takes in the image.
class StepTable {
 public:
  /// Without any rule.
  StepTable() noexcept = default;

  /// The rules of `code` by `table`, which takes some 30 ns a row. Without any
  /// where the table's index is not sorted or cannot be read, or where the rules would take more
  /// than `room` bytes.
  static StepTable of(const CallFrameTable& table, AddressRange code, std::size_t room) noexcept;

  /// The rule for the code at `address`; kNothing where the call-frame table itself must be
  /// asked: outside of functions, for rows that a rule cannot tell, for signal frames, and in a
  /// function's last byte. (A return address behind that one may be a signal trampoline's.)
  StepRule find(std::uint64_t address) const noexcept {
    const std::uint64_t distance = address - codeStart_;
    const std::uint64_t piece = distance / kPiece;
    if (piece + 1 >= pieces_.size()) {
      return StepRule();
    }
    const auto offset = static_cast<std::uint8_t>(distance % kPiece);
    const std::uint32_t end = pieces_[piece + 1];
    std::uint32_t first = pieces_[piece];
    while (end - first > kAtOnce && starts_[first + kAtOnce] <= offset) {
      first += kAtOnce;
    }
    return rules_[numbers_[first + countNotBeyond(offset, first, end) - 1]];
  }

  /// The bytes that it takes.
  std::size_t size() const noexcept {
    return pieces_.size() * sizeof(std::uint32_t) + starts_.size() + numbers_.size() * sizeof(std::uint16_t) +
           rules_.size() * sizeof(StepRule);
  }

 private:
  class Maker;
  static constexpr std::uint64_t kPiece = 256;
  static constexpr std::uint32_t kAtOnce = 16;

  /// How many of the rows from `first` to `end`, but of kAtOnce at most, start at or before
  /// `offset`. Compares them all at once: where a walk comes by is anything but foreseeable, and a
  /// branch that is foreseen wrong costs more than all the rest.
  unsigned countNotBeyond(std::uint8_t offset, std::uint32_t first, std::uint32_t end) const noexcept {
    const __m128i starts = _mm_loadu_si128(reinterpret_cast<const __m128i*>(starts_.data() + first));
    const __m128i lesser = _mm_min_epu8(starts, _mm_set1_epi8(static_cast<char>(offset)));
    const auto notBeyond = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(lesser, starts)));
    const std::uint32_t others = ~std::uint32_t{0} << std::min(end - first, kAtOnce);
    return static_cast<unsigned>(__builtin_ctz(~notBeyond | others));
  }

  std::uint64_t codeStart_ = 0;
  Array<std::uint32_t> pieces_;   // the first row of each, and where the last one's end
  Array<std::uint8_t> starts_;    // of the rows, from their piece's; then kAtOnce - 1 more that may be read too
  Array<std::uint16_t> numbers_;  // of the rows' rules
  Array<StepRule> rules_;         // each once, the first kNothing
};

}  // namespace core

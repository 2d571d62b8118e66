#include "Core/Kernel/Unwind/ByteCursor.h"

#include <algorithm>

namespace core {
namespace {

constexpr unsigned kBits = 64;

/// A number in pieces of 7 bits, lowest first; what is beyond 64 bits is passed over.
struct Leb {
  std::uint64_t value = 0;
  unsigned shift = 0;
  std::uint8_t last = 0;

  explicit Leb(ByteCursor& cursor) noexcept {
    do {
      last = cursor.byte();
      if (shift < kBits) {
        value |= std::uint64_t{last & 0x7FU} << shift;
      }
      shift += 7;
    } while ((last & 0x80) != 0);
  }
};

}  // namespace

std::uint64_t ByteCursor::longLeb() noexcept {
  return Leb(*this).value;
}

std::int64_t ByteCursor::signedLeb() noexcept {
  Leb number(*this);
  if ((number.last & 0x40) != 0 && number.shift < kBits) {
    number.value |= ~std::uint64_t{0} << number.shift;
  }
  return static_cast<std::int64_t>(number.value);
}

void ByteCursor::skip(std::uint64_t count) noexcept {
  if (count <= end_ - address()) {
    moveTo(address() + count);
  } else {
    fail();
  }
}

void ByteCursor::moveTo(std::uint64_t wanted) noexcept {
  if (failed_ || wanted < start_ || wanted > end_) {
    fail();
    return;
  }
  const std::uint64_t distance = wanted - address();  // wraps when it leads back
  if (memory_ == nullptr || distance <= atHand()) {
    at_ += static_cast<std::int64_t>(distance);
  } else {
    at_ = handEnd_ = block_.data();
    setAddress(wanted);
  }
}

void ByteCursor::endAt(std::uint64_t wanted) noexcept {
  if (wanted < address() || wanted > end_) {
    fail();
    return;
  }
  end_ = wanted;
  handEnd_ = at_ + std::min<std::uint64_t>(atHand(), end_ - address());
}

bool ByteCursor::fetch(std::size_t wanted) noexcept {
  const std::uint64_t place = address();
  if (memory_ == nullptr || failed_ || wanted > end_ - place) {
    fail();
    return false;
  }
  const std::size_t count =
      memory_->readFront(place, block_.data(), std::min<std::uint64_t>(block_.size(), end_ - place));
  at_ = block_.data();
  handEnd_ = at_ + count;
  setAddress(place);
  if (count < wanted) {
    fail();
  }
  return !failed_;
}

}  // namespace core

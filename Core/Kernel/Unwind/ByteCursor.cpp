#include "Core/Kernel/Unwind/ByteCursor.h"

#include <algorithm>

namespace core {
namespace {

constexpr unsigned kBits = 64;

}  // namespace

std::uint64_t ByteCursor::longLeb() noexcept {
  std::uint64_t value = 0;
  std::uint8_t part = 0;
  unsigned shift = 0;
  do {
    part = byte();
    if (shift < kBits) {
      value |= std::uint64_t{part & 0x7FU} << shift;
    }
    shift += 7;
  } while ((part & 0x80) != 0);
  return value;
}

std::int64_t ByteCursor::signedLeb() noexcept {
  std::uint64_t value = 0;
  std::uint8_t part = 0;
  unsigned shift = 0;
  do {
    part = byte();
    if (shift < kBits) {
      value |= std::uint64_t{part & 0x7FU} << shift;
    }
    shift += 7;
  } while ((part & 0x80) != 0);
  if ((part & 0x40) != 0 && shift < kBits) {
    value |= ~std::uint64_t{0} << shift;
  }
  return static_cast<std::int64_t>(value);
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

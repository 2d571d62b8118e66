#include "Kiv/common/wex/BufferWriter.h"

namespace analyticsyut {

void BufferWriter::reserve(std::uint64_t n) noexcept {
  if (capacity_ >= n) {
    return;
  }
  auto* grown = static_cast<std::uint8_t*>(core::allocate(2 * n));
  if (length_ != 0) {
    std::memcpy(grown, buffer_, length_);
  }
  core::deallocate(buffer_);
  buffer_ = grown;
  capacity_ = 2 * n;
}

}  // namespace analyticsyut

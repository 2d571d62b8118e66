#include "Kiv/common/wex/WexEncoding.h"

#include "Kiv/common/wex/WexDecodeException.h"

namespace analyticsyut {

void WexEncoding::throwInvalidSize(std::uint8_t tag, std::size_t size) {
  WexDecodeException::raiseLong("invalid string size, tag: %d, size: %u", tag, size);
}

}  // namespace analyticsyut

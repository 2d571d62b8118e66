#include "Kiv/common/wex/UniPacket.h"

#include <stdexcept>

namespace analyticszem {

core::Data UniPacket::encode() {
  doEncode();
  const std::uint64_t size = kLengthSize + scratch_.length();
  return core::Data(core::Bytes::filled(size, [&](char* out) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      *out++ = static_cast<char>(size >> shift);
    }
    std::memcpy(out, scratch_.buffer(), scratch_.length());
  }));
}

void UniPacket::doEncode() {
  if (servantName.empty()) {
    throw std::runtime_error("ServantName must not be empty");
  }
  if (funcName.empty()) {
    throw std::runtime_error("FuncName must not be empty");
  }
  scratch_.clear();
  scratch_.write(data_, 0);
  buffer = scratch_.data();
  scratch_.clear();
  writeTo(scratch_);
}

void UniPacket::decode(const void* bytes, std::size_t length) {
  if (length < kLengthSize) {
    throw std::runtime_error("packet length too short");
  }
  analyticsyut::WexInputStream packet({static_cast<const std::uint8_t*>(bytes) + kLengthSize, length - kLengthSize});
  readFrom(packet);
  data_.clear();
  analyticsyut::WexInputStream attributes(buffer.span());
  attributes.read(data_, 0, true);
}

}  // namespace analyticszem

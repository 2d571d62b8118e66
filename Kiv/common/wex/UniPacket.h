#pragma once

#include "Kiv/common/wex/RequestPacket.h"
#include "Kiv/common/wex/UniAttribute.h"

namespace analyticszem {

/// The envelope of every request and response: attributes, whom they are for, and a length.
///
///     UniPacket packet;
///     packet.servantName = "...";
///     packet.funcName = "...";
///     packet.put("detail", record);
///     core::Data body = packet.encode();
///
/// encode, decode and get throw std::runtime_error, of which WexDecodeException is one.
class UniPacket : public analyticsyut::RequestPacket, public UniAttribute {
 public:
  static constexpr std::int16_t kVersion = 2;
  static constexpr std::size_t kLengthSize = 4;

  UniPacket() noexcept { version = kVersion; }

  /// The bytes to send: their number, itself included, in 4 bytes, big-endian, then the packet.
  core::Data encode();

  /// Takes what was received. The length in front is not looked at: senders have got it wrong.
  void decode(const void* bytes, std::size_t length);

 private:
  void doEncode();

  analyticsyut::WexOutputStream scratch_;
};

}  // namespace analyticszem

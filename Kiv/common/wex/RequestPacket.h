#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace analyticsyut {

/// What goes over the wire in either direction: whom it is for, and the encoded attributes in
/// `buffer`. Written behind a length, without a frame (see UniPacket).
struct RequestPacket : WexStructBase<RequestPacket> {
  static constexpr std::string_view kTypeName = "analyticsyut.RequestPacket";

  std::int16_t version = 0;
  std::int8_t packetType = 0;
  std::int32_t messageType = 0;
  std::int32_t requestId = 0;
  core::String servantName;
  core::String funcName;
  core::Data buffer;
  std::int32_t timeout = 0;
  core::SortedMap<core::String> context;
  core::SortedMap<core::String> status;

  static constexpr std::tuple kFields{
      required<1>("version", &RequestPacket::version),         optional<2>("packetType", &RequestPacket::packetType),
      optional<3>("messageType", &RequestPacket::messageType), required<4>("requestId", &RequestPacket::requestId),
      required<5>("servantName", &RequestPacket::servantName), required<6>("funcName", &RequestPacket::funcName),
      required<7>("buffer", &RequestPacket::buffer),           optional<8>("timeout", &RequestPacket::timeout),
      optional<9>("context", &RequestPacket::context),         optional<10>("status", &RequestPacket::status),
  };
};

}  // namespace analyticsyut

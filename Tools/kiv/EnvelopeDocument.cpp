#include "Tools/kiv/EnvelopeDocument.h"

#include "Kiv/common/wex/UniPacket.h"
#include "Kiv/common/wex/WexDecodeException.h"
#include "Tools/kiv/FieldDocument.h"
#include "Tools/kiv/RecordDocument.h"

namespace {

using analyticszem::UniPacket;

/// The version in front of every packet: a short number with tag 1.
constexpr std::uint8_t kFirstHeads[] = {0x10, 0x11, 0x1C};

std::uint32_t lengthIn(ByteView bytes) {
  std::uint32_t length = 0;
  for (const std::uint8_t byte : bytes.first(UniPacket::kLengthSize)) {
    length = length << 8 | byte;
  }
  return length;
}

/// A record under the name of its type, by its fields' names where the type is known.
Document documentOfTyped(const std::string& type, ByteView bytes) {
  const auto known = recordTypes();
  const bool isKnown = std::find(known.begin(), known.end(), type) != known.end();
  return isKnown ? documentOfRecord(type, bytes) : documentOfFields(bytes);
}

Document documentOfAttributes(const UniPacket& packet) {
  Document attributes = Document::object();
  for (const auto& [name, records] : packet.attributes()) {
    Document& typed = attributes[name.str()] = Document::object();
    for (const auto& [type, bytes] : records) {
      typed[type.str()] = documentOfTyped(type.str(), bytes.span());
    }
  }
  return attributes;
}

}  // namespace

bool looksLikeEnvelope(ByteView bytes) {
  return bytes.size() > UniPacket::kLengthSize && std::find(std::begin(kFirstHeads), std::end(kFirstHeads),
                                                            bytes[UniPacket::kLengthSize]) != std::end(kFirstHeads);
}

Document documentOfEnvelope(ByteView bytes) {
  UniPacket packet;
  try {
    packet.decode(bytes.data(), bytes.size());
  } catch (const std::runtime_error& fault) {
    try {
      documentOfFields(bytes.subspan(UniPacket::kLengthSize));
    } catch (BrokenDocument& broken) {
      throw BrokenDocument(broken.offset + UniPacket::kLengthSize, broken.what(), std::move(broken.read));
    }
    throw BrokenDocument(bytes.size(), fault.what());
  }
  Document envelope = {{"length", lengthIn(bytes)},         {"version", packet.version},
                       {"packetType", packet.packetType},   {"messageType", packet.messageType},
                       {"requestId", packet.requestId},     {"servantName", packet.servantName.str()},
                       {"funcName", packet.funcName.str()}, {"timeout", packet.timeout}};
  envelope["attributes"] = documentOfAttributes(packet);
  return envelope;
}

#include <cstdlib>

#include "Kiv/common/model/zem/RequestPkg.h"
#include "Kiv/common/model/zem/ResponsePkg.h"
#include "Kiv/common/wex/UniPacket.h"

namespace {

/// Whether there is such a record, which must then survive another envelope.
template <class Record>
void takeOut(const analyticszem::UniPacket& packet) {
  Record record;
  try {
    record = packet.get<Record>("detail");
  } catch (const std::runtime_error&) {
    return;
  }
  analyticszem::UniPacket again;
  again.servantName = "servant";
  again.funcName = "function";
  again.put("detail", record);
  const core::Data sent = again.encode();
  analyticszem::UniPacket received;
  received.decode(sent.data(), sent.size());
  if (!(received.get<Record>("detail") == record)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  analyticsyut::WexInputStream::setWarningSink([](std::string_view) {});
  analyticszem::UniPacket packet;
  try {
    packet.decode(data, size);
  } catch (const std::runtime_error&) {
    return 0;
  }
  takeOut<kiv::RequestPkg>(packet);
  takeOut<kiv::ResponsePkg>(packet);
  return 0;
}

#pragma once

#include <memory>
#include <optional>

#include "Core/Memory/String.h"
#include "Kiv/common/model/KivLocalObjInitWithZemProtocol.h"
#include "Kiv/common/model/zem/ResponsePkg.h"

/// The server's answer to one request, with the object that it brought (command 510: a
/// KivLocalStrategy). A plain value; empty texts of the record are nil.
class KivResponsePackage {
 public:
  using Text = std::optional<core::String>;

  std::int8_t result = 0;  ///< 0: accepted
  std::int32_t cmd = 0;
  std::shared_ptr<KivLocalObjInitWithZemProtocol> sBuffer;
  Text gateWayIp;
  std::int64_t serverTime = 0;  ///< milliseconds since 1970, 0 for none
  Text status;
  Text vorin;
  std::int32_t networkType = -1;  ///< of the request: -1 unknown, 0 Wi-Fi, 1 other

  /// From a record whose sBuffer is plain: deciphered and decompressed.
  static KivResponsePackage responsePackageWithZEMModel(const kiv::ResponsePkg& record);

 private:
  void instantiateObject(const core::Data& payload);
};

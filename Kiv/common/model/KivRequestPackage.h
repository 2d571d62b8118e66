#pragma once

#include <memory>

#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/model/KivUploadRecord.h"
#include "Kiv/common/model/zem/RequestPkg.h"

/// One request to the collection server: who asks, what for, and the upload record that it
/// carries. Made by the upload handlers, turned into bytes by the transport. A plain value.
class KivRequestPackage {
 public:
  using Text = std::optional<core::String>;
  using UploadRecord = std::shared_ptr<const KivUploadRecord>;

  static constexpr std::int32_t kExceptionCommand = 630;  ///< crashes, exceptions, stalls
  static constexpr std::int32_t kSummaryCommand = 640;

  std::int32_t platformId = 0;
  Text productId;
  Text bundleId;
  Text productVersion;
  Text channel;
  Text sdkVersion;
  std::int32_t cmd = 0;
  UploadRecord sBuffer;
  Text model;
  Text hardwareOs;
  core::Dictionary<core::String> reserved;
  Text sessionId;
  std::int64_t strategylastUpdateTime = 0;
  Text sdkId{""};
  Text deviceId;
  Text apn;
  Text vorin;
  Text networkType{""};
  Text idfv;

  /// With the facts that `data` holds now.
  static KivRequestPackage initWithData(const KivModelBase& data, std::int32_t cmd, UploadRecord sBuffer) noexcept;
  /// An upload of stalls, with the facts of the default model.
  static KivRequestPackage createPackageForBlockData(UploadRecord sBuffer) noexcept;

  /// Encodes the upload record into the record's sBuffer, plain. Throws WexDecodeException (see KivUploadRecord).
  void createZEMModel(kiv::RequestPkg& record) const;

  /// Who tells the update time of the strategy in force; without it the time is 0. Set by the
  /// module that holds the strategy, when it starts.
  static void setStrategyTimeSource(std::int64_t (*source)() noexcept) noexcept;
};

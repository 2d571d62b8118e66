#include "Kiv/crashhandler/persist/KivCrashMetaData.h"

#include "Kiv/common/utils/KivLog.h"

core::Data KivCrashMetaData::encodeData() const noexcept {
  return core::archive::archived(*this);
}

bool KivCrashMetaData::setEncodeData(std::span<const std::uint8_t> data) noexcept {
  if (data.empty()) {
    kiv_log_warn("data is nil, can not instance %@", kClassName);
    return false;
  }
  auto read = core::archive::unarchived(data, *this);
  if (!read) {
    kiv_log_error("got %@ in KivCrashMetaData setEncodeData for %@", "NSInvalidUnarchiveOperationException",
                  read.error().reason);
    return false;
  }
  *this = std::move(*read);
  return true;
}

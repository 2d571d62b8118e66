#include "Kiv/common/model/KivLocalObject.h"

#include "Kiv/common/utils/KivLog.h"

core::Data KivLocalObject::encodeData() noexcept {
  core::Data data = archive();
  encLen = static_cast<std::int64_t>(data.size());
  return data;
}

bool KivLocalObject::setEncodeData(std::span<const std::uint8_t> data) noexcept {
  if (data.empty()) {
    kiv_log_warn("data is nil, can not instance %@", className());
    return false;
  }
  if (const char* reason = unarchive(data)) {
    kiv_log_error("got %@ in KivPersistObject setEncodeData for %@", "NSInvalidUnarchiveOperationException", reason);
    return false;
  }
  encLen = static_cast<std::int64_t>(data.size());
  return true;
}

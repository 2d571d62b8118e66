#include "Kiv/common/KivProtocolDataRegister.h"

#include "Kiv/common/utils/KivLog.h"

KivProtocolDataRegister& KivProtocolDataRegister::sharedInstance() noexcept {
  static auto& instance = *new KivProtocolDataRegister;
  return instance;
}

void KivProtocolDataRegister::registResponseObjectType(const std::optional<KivModelClass>& clazz,
                                                       std::int32_t key) noexcept {
  if (!clazz) {
    return;
  }
  if (!clazz->conformsToZemProtocol()) {
    kiv_log_error("KivProtocolDataRegister::: clazz %@ did not implemnt protocol KivLocalObjInitWithZemProtocol",
                  clazz->name);
    return;
  }
  const core::Lock lock(mutex_);
  for (Row& row : rows_) {
    if (row.key == key) {
      row.clazz = *clazz;
      return;
    }
  }
  rows_.append({key, *clazz});
}

std::optional<KivModelClass> KivProtocolDataRegister::getResponseObjectType(std::int32_t key) const noexcept {
  const core::Lock lock(mutex_);
  for (const Row& row : rows_) {
    if (row.key == key) {
      return row.clazz;
    }
  }
  return std::nullopt;
}

#include "Platform/Foundation/NotificationCenter.h"

#include <utility>

namespace platform {

NotificationCenter& NotificationCenter::defaultCenter() noexcept {
  static NotificationCenter* const center = new NotificationCenter;
  return *center;
}

NotificationCenter::Observer NotificationCenter::addObserver(core::String name,
                                                             core::Block<void(const Notification&)> block) noexcept {
  return observers_.add(std::move(name), std::move(block));
}

void NotificationCenter::removeObserver(Observer observer) noexcept {
  observers_.remove(observer);
}

void NotificationCenter::post(core::String name, core::Value object) const {
  const Notification notification{std::move(name), std::move(object)};
  observers_.notify([&](std::uint64_t, const core::String& wanted) { return wanted == notification.name; },
                    notification);
}

}  // namespace platform

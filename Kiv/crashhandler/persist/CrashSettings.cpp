#include "Kiv/crashhandler/persist/CrashSettings.h"

#include "Kiv/common/utils/KivLog.h"

namespace {

bool contains(const core::String& name, const core::String& part) noexcept {
  return name.view().find(part.view()) != std::string_view::npos;
}

}  // namespace

bool CrashSettings::reject(const Names& stackNames) const noexcept {
  if (!includeShortNames.empty() && !stackNames.empty()) {
    bool isIncluded = false;
    for (const core::String& part : includeShortNames) {
      for (const core::String& name : stackNames) {
        if (contains(name, part)) {
          kiv_log_info("crash stack contains include shortname %@, will log crash", name);
          isIncluded = true;
        }
      }
    }
    if (!isIncluded) {
      return true;
    }
  }
  for (const core::String& part : excludeShortNames) {
    for (const core::String& name : stackNames) {
      if (contains(name, part)) {
        kiv_log_warn("crash stack contains exclude shortname %@, will not log crash", name);
        return true;
      }
    }
  }
  return false;
}

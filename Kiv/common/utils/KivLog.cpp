#include "Kiv/common/utils/KivLog.h"

#include "Platform/Logging/NSLog.h"

std::atomic<std::int32_t> kiv_log_level{0};

void kiv_log_line(std::string_view prefix, std::string_view text) noexcept {
  NSLog("%@%@", prefix, text);
}

#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Core/Text/Format.h"

/// What the library's log prints: errors from level 1, warnings from 3, information from 4.
/// 0 at first; lines of kiv_log_always print at any level.
extern std::atomic<std::int32_t> kiv_log_level;

inline constexpr std::int32_t kKivLogErrorLevel = 1;
inline constexpr std::int32_t kKivLogWarnLevel = 3;
inline constexpr std::int32_t kKivLogInfoLevel = 4;

inline bool kiv_log_enabled(std::int32_t level) noexcept {
  return kiv_log_level.load(std::memory_order_relaxed) >= level;
}

/// Writes one line, `prefix` and `text`, to the system log. Fit for the crash path.
void kiv_log_line(std::string_view prefix, std::string_view text) noexcept;

template <class... A>
void kiv_log_always(core::FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  kiv_log_line("", core::kiv_format(format, arguments...));
}

template <class... A>
void kiv_log_error(core::FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  if (kiv_log_enabled(kKivLogErrorLevel)) {
    kiv_log_line("<ERROR> <KIV> ", core::kiv_format(format, arguments...));
  }
}

template <class... A>
void kiv_log_warn(core::FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  if (kiv_log_enabled(kKivLogWarnLevel)) {
    kiv_log_line("<WARN> <KIV> ", core::kiv_format(format, arguments...));
  }
}

template <class... A>
void kiv_log_info(core::FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  if (kiv_log_enabled(kKivLogInfoLevel)) {
    kiv_log_line("<INFO> <KIV> ", core::kiv_format(format, arguments...));
  }
}

#pragma once

#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/String.h"

/// What the program set about its crashes ahead of one. A plain value, which the journal keeps for the
/// start that has to report in this process's place.
struct CrashSettings {
  using Names = core::Array<core::String>;

  static constexpr std::size_t kMostAttachLog = 10240;  ///< characters

  Names includeShortNames;                ///< parts of module names, one of which the crashed stack must have
  Names excludeShortNames;                ///< parts of module names, none of which it may have
  std::optional<core::String> attachLog;  ///< cut to its beginning
  bool mergesEqual = false;               ///< a crash into the record of an equal one before

  /// Whether a crash with these modules in its stack is not to be saved; the log tells why. Fit for the
  /// crash path.
  bool reject(const Names& stackNames) const noexcept;

  template <class Self, class Each>
  static void fields(Self& self, Each&& each) noexcept {
    each(self.includeShortNames, self.excludeShortNames, self.mergesEqual, self.attachLog);
  }
};

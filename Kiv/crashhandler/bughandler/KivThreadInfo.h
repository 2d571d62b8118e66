#pragma once

#include <cstdint>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/String.h"
#include "Kiv/crashhandler/bughandler/KivCrashAddrInfo.h"

/// One thread with its stack, as reports show it. A plain value.
struct KivThreadInfo {
  using Texts = core::Array<core::String>;

  /// The index of a thread that is not one of the list.
  static constexpr std::uint32_t kAlone = 4294967295;

  std::uint32_t threadIndex = 0;           ///< position in the process's list, 0 for the main thread
  std::optional<core::String> threadName;  ///< empty for an unnamed thread
  bool isCrashThread = false;
  KivStack threadStacks;
  Texts threadTrace;  ///< lines of a plain trace, used where there are no frames

  /// Every module of the stack once, in the order in which they come.
  Texts getAllShortNames() const noexcept;
  /// Adds those that are not among `names` yet.
  void addShortNamesTo(Texts& names) const noexcept;
  /// All frames' offsets in decimal, one after the other: tells stacks apart.
  core::String getCurrThreadUUID() const noexcept;
  /// The stack's lines, each with its line end.
  core::String getCurrThreadStackLines() const noexcept;

  core::String description() const noexcept;
  core::String debugDescription() const noexcept;
};

#pragma once

#include <atomic>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Kiv/crashhandler/CrashReporter.h"

/// What the facade keeps itself; everything else lives in the rooms that it forwards to.
struct CrashReporter::State {
  /// From a successful installation to uninstall().
  static inline std::atomic<bool> installed{false};

  core::Mutex installing;
  core::Published<std::optional<core::String>> applicationGroupIdentifier;
};

inline std::optional<std::string> toStandard(const std::optional<core::String>& text) {
  return text ? std::optional(text->str()) : std::nullopt;
}

inline core::Array<core::String> toTexts(const std::vector<std::string>& texts) {
  core::Array<core::String> made;
  for (const std::string& text : texts) {
    made.append(core::String(text));
  }
  return made;
}

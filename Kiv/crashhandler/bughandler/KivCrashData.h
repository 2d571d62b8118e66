#pragma once

#include <memory>
#include <optional>

#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"

class NSException;

/// What a crash, or an error that the program reports, consists of: its description and the
/// data that the program gave ahead. Takes calls but keeps nothing yet.
class KivCrashData {
 public:
  using Text = std::optional<core::String>;

  static KivCrashData& expData() noexcept {
    static auto& data = *new KivCrashData;
    return data;
  }

  void appendSessionEvent(const Text&) noexcept {}
  void addUserMapData(const Text& /*key*/, const Text& /*value*/) noexcept {}
  void setScene(unsigned long) noexcept {}
  unsigned long currentScene() const noexcept { return 0; }
  void addSceneValue(const Text& /*value*/, const Text& /*key*/) noexcept {}
  void removeSceneValueForKey(const Text&) noexcept {}
  void removeAllSceneValues() noexcept {}
  Text sceneValueForKey(const Text&) const noexcept { return std::nullopt; }
  core::Dictionary<core::String> allSceneValues() const noexcept { return {}; }

  bool isCustomizedException() const noexcept { return false; }
  KivCrashData* currentCustomizedCrashData() const noexcept { return nullptr; }
  std::shared_ptr<const NSException> exp() const noexcept { return nullptr; }
  Text type() const noexcept { return std::nullopt; }
  Text crashlog() const noexcept { return std::nullopt; }
  Text crashStack() const noexcept { return std::nullopt; }

 private:
  KivCrashData() noexcept = default;
};

#pragma once

#include <optional>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/ChangeHook.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"

/// What the program tells ahead of a crash: key-values, scenes and session events. Any thread
/// adds; the crash reads what was published last. Lengths are in characters.
class CrashUserData {
 public:
  using Text = std::optional<core::String>;
  using Texts = core::Array<core::String>;
  using Map = core::Dictionary<core::String>;

  static constexpr std::size_t kMostKeyLength = 64;
  static constexpr std::size_t kMostValueLength = 512;
  static constexpr std::size_t kMostUserValues = 20;
  static constexpr std::size_t kMostSceneEntries = 15;  ///< of all kinds
  static constexpr std::size_t kMostEvents = 100;
  static constexpr std::size_t kMostEventLength = 200;

  enum class Kind { kUserMaps, kScenes, kEvents };
  /// Called after any of them was changed.
  void onChange(void (*changed)(Kind)) noexcept { changed_.set(changed); }

  /// The oldest event goes when there are too many; a blank or too long one is not taken.
  void appendSessionEvent(const Text& event) noexcept;
  Texts sessionEvents() const noexcept { return sessionEvents_.get(); }

  /// Refused once there are kMostUserValues, for a key that is there already too.
  void addUserMapData(const Text& key, const Text& value) noexcept;
  Map userMaps() const noexcept { return userMaps_.get(); }
  void setUserMaps(Map entries) noexcept;

  /// The number of the program's scene and of the library's, kept under "C01" and "C02".
  void setScene(unsigned long scene) noexcept { setSceneNumber("C01", scene); }
  unsigned long currentScene() const noexcept;
  void setSdkScene(unsigned long scene) noexcept { setSceneNumber("C02", scene); }

  /// Kept under "C03_" and the key; keys are letters and digits.
  void addSceneValue(const Text& value, const Text& key) noexcept;
  /// Kept under "C04_" and the key, without limits.
  void addSdkSceneValue(const Text& value, const Text& key) noexcept;

  /// By whole key, prefix included.
  void removeSceneValueForKey(const Text& key) noexcept;
  void removeAllSceneValues() noexcept { setSceneData({}); }
  Text sceneValueForKey(const Text& key) const noexcept;
  Map allSceneValues() const noexcept { return sceneData_.get(); }

  Map sceneData() const noexcept { return sceneData_.get(); }
  void setSceneData(Map entries) noexcept;

 private:
  void setSceneNumber(const char* key, unsigned long scene) noexcept;

  core::ChangeHook<Kind> changed_;
  core::Published<Map> userMaps_;
  core::Published<Map> sceneData_;
  core::Published<Texts> sessionEvents_;
};

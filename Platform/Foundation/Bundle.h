#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"

namespace platform {

/// A program's folder with its description, Info.plist, and its Resources/. The description is
/// read once, when the object is made; afterwards everything may be asked from any thread.
class Bundle {
 public:
  /// A larger Info.plist is not read.
  static constexpr std::size_t kInfoLimit = std::size_t{1} << 20;

  /// The executable's folder. Made on first use, never destroyed.
  static const Bundle& main() noexcept;
  /// Lets main() be another folder. False, and without effect, once main() was used.
  static bool setMainForTesting(core::String path) noexcept;

  explicit Bundle(core::String path) noexcept;

  const core::String& path() const noexcept { return path_; }
  core::String resourcePath() const noexcept;
  /// "Resources/name.type" where it exists; without the dot for an empty type.
  std::optional<core::String> resourcePath(std::string_view name, std::string_view type) const noexcept;

  /// Empty without a usable Info.plist.
  const core::ValueDictionary& infoDictionary() const noexcept { return info_; }
  /// Nothing (nullptr) for a missing key; infoString also for a value that is no string.
  const core::Value* info(std::string_view key) const noexcept { return info_.find(key); }
  std::optional<core::String> infoString(std::string_view key) const noexcept;
  /// As Value::asBoolean; false without a key.
  bool infoBoolean(std::string_view key) const noexcept;
  /// One line for the log when there is an Info.plist that cannot be used.
  const std::optional<core::String>& infoProblem() const noexcept { return problem_; }

  /// CFBundleIdentifier, without one the executable's name: what folders and files of this
  /// program are named after.
  core::String identifier() const noexcept;
  /// Base name of the running executable.
  static core::String executableName() noexcept;

 private:
  core::String path_;
  core::ValueDictionary info_;
  std::optional<core::String> problem_;
};

}  // namespace platform

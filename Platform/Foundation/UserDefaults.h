#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace platform {

/// Settings of the user for one program, by key, kept in a property list.
///
/// A value that was set wins over one that was registered. Values set are written in the
/// background, several at once; until then, and where writing fails, they hold in memory.
/// Processes may share the file: each adds its own changes to what it finds there.
///
/// Any thread and the crash path, where setting writes before it returns.
class UserDefaults {
 public:
  /// "<bundle identifier>.plist" in the user's configuration directory. Read at the first
  /// call, which installation makes; never destroyed.
  static UserDefaults& standard() noexcept;

  /// With a file of its own; written on `queue`, which must outlive it.
  explicit UserDefaults(core::String path, DispatchQueue& queue = DispatchQueue::global()) noexcept;

  std::optional<core::Value> object(std::string_view key) const noexcept;
  /// As Value::asBoolean and asInteger, false and 0 where there is nothing of the kind.
  bool boolean(std::string_view key) const noexcept;
  std::int64_t integer(std::string_view key) const noexcept;
  std::optional<core::String> string(std::string_view key) const noexcept;
  std::optional<core::ValueDictionary> dictionary(std::string_view key) const noexcept;

  /// A null value removes.
  void setObject(std::string_view key, core::Value value) noexcept;
  void removeObject(std::string_view key) noexcept;

  /// Values for keys that are not set; not stored. Later ones win over earlier ones.
  void registerDefaults(const core::ValueDictionary& values) noexcept;

  /// Writes what was set since the last time, and takes over what other processes wrote. False
  /// when the file could not be read or written; a reason that is new goes to the log.
  bool synchronize() noexcept;

 private:
  class Store;
  std::shared_ptr<Store> store_;  // shared with a write that is under way
  DispatchQueue& queue_;
};

}  // namespace platform

#pragma once

#include <optional>
#include <string_view>

#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/PropertyList/Value.h"

/// The small key/value file of the data directory, ".kivios.plist", and its copy in memory.
///
/// KivModelBase and KivBundleUtil keep in it what must outlive the process. The file is always
/// rewritten whole and atomically, on the background queue, from a copy; of two writes that
/// overlap the newer content stays. A file that cannot be understood is set aside under another
/// name. Any thread; reads and writes are fit for the crash path once loaded.
class KivPersistedKeys {
 public:
  static KivPersistedKeys& shared() noexcept;

  /// Ensures the data directory and reads the file; only the first call does anything. Every
  /// operation below calls it.
  void load() noexcept;

  std::optional<core::Value> get(std::string_view key) noexcept;
  /// In memory only; written with the next write of the file.
  void set(std::string_view key, core::Value value) noexcept;
  void unset(std::string_view key) noexcept;
  core::ValueDictionary all() noexcept;

  /// Writes the whole file: in the background, or before returning (false when that failed).
  void write() noexcept;
  bool writeNow() noexcept;

  /// Moves the file to another directory, making it; false and no change when that fails. What
  /// is loaded already is kept.
  bool resetDirectory(std::string_view directory) noexcept;

  /// The file's path, and the directory that the reports lie in.
  core::String path() noexcept;
  /// "com.velmora.kiv" and the bundle identifier under Application Support.
  static core::String defaultDirectory() noexcept;

 private:
  struct Copy {
    core::ValueDictionary keys;
    core::String path;
    std::uint64_t generation;
  };

  KivPersistedKeys() noexcept = default;
  Copy copy() noexcept;
  bool writeCopy(const Copy& copy) noexcept;

  core::Mutex mutex_;  // serialises load, resetDirectory and generations
  std::atomic<bool> loaded_{false};
  core::Published<core::ValueDictionary> keys_;
  core::Published<core::String> path_;
  std::atomic<bool> writable_{true};  // false: a file that must not be touched is there
  std::uint64_t generation_ = 0;

  core::Mutex writing_;
  std::uint64_t written_ = 0;
};

#pragma once

#include <string_view>

#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"

/// The store of what must reach the next run. For now it only knows its directory.
class KivFilePersistHandler {
 public:
  static KivFilePersistHandler& sharedInstance() noexcept;

  core::String folderPath() const noexcept { return folderPath_.get(); }

  /// Moves to another directory, making it. What was stored in the old one stays there.
  bool changeDbPath(std::string_view path) noexcept;

 private:
  KivFilePersistHandler() noexcept;
  ~KivFilePersistHandler() = delete;

  core::Published<core::String> folderPath_;
};

#pragma once

#include <optional>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Kiv/common/model/KivExpObj.h"

/// The files of the store's directory that hold one crash each, ".crash_2018-03-05-14-03-09.data". Any
/// thread and the crash path.
class CrashRecordFile {
 public:
  CrashRecordFile() = delete;

  /// By the local time of the crash: two of one second share a file, the later one stays.
  static core::String nameOf(const KivExpObj& record) noexcept;

  /// Whether an index may call a file so: a plain name that begins as ours do. What a damaged index
  /// says must lead neither out of the directory nor to another file of the store.
  static bool isName(std::string_view name) noexcept;

  struct Content {
    std::optional<KivExpObj> record;
    /// There is a file, and it will never be a record. False for one that is not there or cannot be
    /// read for now.
    bool isBroken = false;
  };
  static Content read(const core::String& path) noexcept;

  /// 0 or errno; the page cache's, so that a crash waits for no disk.
  static int write(const core::String& path, const core::Data& record) noexcept;

  /// The names in `folder` that begin as ours do, the index included, which comes first.
  static core::Array<core::String> namesIn(const core::String& folder) noexcept;
};

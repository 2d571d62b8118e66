#pragma once

#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"

namespace platform {

/// The content of a property-list file that this process keeps state in.
struct StoredPropertyList {
  core::ValueDictionary content;
  /// False for a file that can neither be used nor moved out of the way: it must not be written.
  bool writable = true;
  /// Whether the content is that of a file.
  bool isThere = false;
};

/// Reads state that must never be lost: a file that cannot be understood is renamed to
/// "<aside>.broken-<seconds>", where `aside` is its own path unless told otherwise, and reported in
/// the log. A missing file is empty state; one that cannot be read for another reason, such as its
/// permissions, is left alone. For user defaults, the keychain, the reporter's own keys and its index of
/// crashes; any thread and the crash path.
StoredPropertyList readStoredPropertyList(const core::String& path, const core::String& aside) noexcept;
inline StoredPropertyList readStoredPropertyList(const core::String& path) noexcept {
  return readStoredPropertyList(path, path);
}

/// Replaces the file atomically, 0600, in the binary form. 0 or errno. Fit for the crash path.
int writeStoredPropertyList(const core::String& path, const core::ValueDictionary& content) noexcept;

}  // namespace platform

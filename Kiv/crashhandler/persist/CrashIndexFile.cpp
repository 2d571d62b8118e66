#include "Kiv/crashhandler/persist/CrashIndexFile.h"

#include <cerrno>

#include "Core/Files/Directory.h"
#include "Kiv/crashhandler/persist/StoreLock.h"

namespace {

/// `base` after the changes; `make` makes a value of an entry.
template <class Value, class Make>
core::Dictionary<Value> applied(const core::Dictionary<Value>& base, const CrashIndexFile::Changes& changes,
                                Make&& make) noexcept {
  core::Dictionary<Value> result;
  for (const auto& [hash, value] : base) {
    const CrashIndexFile::Change* change = changes.find(hash);
    if (change == nullptr) {
      result.set(hash, value);
    } else if (change->entry) {
      result.set(hash, make(*change->entry));
    }
  }
  for (const auto& [hash, change] : changes) {
    if (change.entry && !base.contains(hash)) {
      result.set(hash, make(*change.entry));
    }
  }
  return result;
}

core::Value archiveOf(const KivCrashMetaData& entry) noexcept {
  return core::Value(entry.encodeData());
}

}  // namespace

CrashIndexFile::CrashIndexFile(const core::String& folder) noexcept
    : path_(core::joinPath(folder, kName)), aside_(core::joinPath(folder, "crash_meta.data")) {}

platform::StoredPropertyList CrashIndexFile::read() const noexcept {
  return platform::readStoredPropertyList(path_, aside_);
}

int CrashIndexFile::merge(const Entries& entries, const Changes& changes, bool isContentObsolete) const noexcept {
  const platform::StoredPropertyList found = isContentObsolete ? platform::StoredPropertyList() : read();
  if (!found.writable) {
    return ECANCELED;
  }
  core::ValueDictionary content = applied(found.content, changes, archiveOf);
  if (!found.isThere) {
    content.clear();
    for (const auto& [hash, entry] : changed(entries, changes)) {
      content.set(hash, archiveOf(entry));
    }
  }
  if (found.isThere && content == found.content) {
    return 0;
  }
  // A crash writes every change that it finds; what replaces its index may lack the crash.
  if (StoreLock::isLeftToCrash()) {
    return ECANCELED;
  }
  return platform::writeStoredPropertyList(path_, content);
}

bool CrashIndexFile::decode(const core::Value& value, KivCrashMetaData& entry) noexcept {
  const core::Data* archive = value.data();
  return entry.setEncodeData(archive != nullptr ? archive->span() : std::span<const std::uint8_t>());
}

CrashIndexFile::Entries CrashIndexFile::changed(const Entries& entries, const Changes& changes) noexcept {
  return applied(entries, changes, [](const KivCrashMetaData& entry) { return entry; });
}

#include "Kiv/crashhandler/persist/CrashIndex.h"

#include <cerrno>
#include <cstring>

#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/persist/StoreLock.h"

template <class Matches>
bool CrashIndex::hasEntry(Matches&& matches) const noexcept {
  return state_.read([&](const State& state) {
    for (const auto& [hash, entry] : *state.stored) {
      if (!state.changes.contains(hash) && matches(entry)) {
        return true;
      }
    }
    for (const auto& [hash, change] : state.changes) {
      if (change.entry && matches(*change.entry)) {
        return true;
      }
    }
    return false;
  });
}

void CrashIndex::load() noexcept {
  const core::String folder = folder_.get();
  const StoreLock lock(folder);
  const platform::StoredPropertyList found = CrashIndexFile(folder).read();
  Entries entries;
  core::Array<core::String> broken;
  for (const auto& [hash, value] : found.content) {
    KivCrashMetaData entry;
    if (value.isNull()) {
      continue;
    }
    if (!CrashIndexFile::decode(value, entry)) {
      broken.append(hash);
    }
    entries.set(hash, std::move(entry));
  }
  state_.update([&](State& state) {
    state.stored = core::Shared<Entries>(entries);
    // A blank entry then takes the place of what is no archive, so that the log tells it once.
    for (const core::String& hash : broken) {
      if (!state.changes.contains(hash)) {
        state.changes.set(hash, Change{KivCrashMetaData(), ++state.lastNumber});
      }
    }
  });
}

void CrashIndex::setFileObsolete() noexcept {
  Older expected = Older::kUnknown;
  older_.compare_exchange_strong(expected, Older::kThere);
}

void CrashIndex::fileWasRemoved() noexcept {
  older_ = Older::kGone;
}

bool CrashIndex::empty() const noexcept {
  return !hasEntry([](const KivCrashMetaData&) { return true; });
}

CrashIndex::Entries CrashIndex::all() const noexcept {
  const State state = state_.get();
  return CrashIndexFile::changed(*state.stored, state.changes);
}

std::optional<KivCrashMetaData> CrashIndex::find(std::string_view hash) const noexcept {
  return state_.read([&](const State& state) -> std::optional<KivCrashMetaData> {
    if (const Change* change = state.changes.find(hash)) {
      return change->entry;
    }
    const KivCrashMetaData* entry = state.stored->find(hash);
    return entry != nullptr ? std::optional(*entry) : std::nullopt;
  });
}

bool CrashIndex::isChanged(std::string_view hash) const noexcept {
  return state_.read([&](const State& state) { return state.changes.contains(hash); });
}

std::optional<KivCrashMetaData> CrashIndex::lookUp(std::string_view hash) const noexcept {
  std::optional<KivCrashMetaData> held = find(hash);
  if (held || isChanged(hash) || isFileObsolete()) {
    return held;
  }
  const core::String folder = folder_.get();
  const StoreLock lock(folder);
  KivCrashMetaData entry;
  bool isFound = false;
  const bool isComplete = withinCrashMemory([&] {
    const platform::StoredPropertyList file = CrashIndexFile(folder).read();
    const core::Value* value = file.content.find(hash);
    isFound = value != nullptr && CrashIndexFile::decode(*value, entry);
  });
  return isComplete && isFound ? std::optional(entry) : std::nullopt;
}

void CrashIndex::put(std::string_view hash, const KivCrashMetaData& entry) noexcept {
  const bool isPut = state_.read([&](const State& state) {
    const Change* change = state.changes.find(hash);
    return change != nullptr && change->entry == entry;
  });
  if (isPut) {
    return;
  }
  state_.update([&](State& state) { state.changes.set(hash, Change{entry, ++state.lastNumber}); });
}

void CrashIndex::remove(const core::Array<core::String>& hashes) noexcept {
  // The crash that is being saved may be of one of them.
  if (StoreLock::isLeftToCrash()) {
    return;
  }
  state_.update([&](State& state) {
    for (const core::String& hash : hashes) {
      state.changes.set(hash, Change{std::nullopt, ++state.lastNumber});
    }
  });
}

bool CrashIndex::names(std::string_view name) const noexcept {
  return hasEntry([&](const KivCrashMetaData& entry) { return entry.file && *entry.file == name; });
}

std::optional<CrashIndex::Names> CrashIndex::allNames() const noexcept {
  Names names;
  const auto add = [&names](const KivCrashMetaData& entry) {
    if (entry.file) {
      names.set(*entry.file, true);
    }
    return false;
  };
  hasEntry(add);
  const core::String folder = folder_.get();
  const StoreLock lock(folder);
  const platform::StoredPropertyList found =
      isFileObsolete() ? platform::StoredPropertyList() : CrashIndexFile(folder).read();
  for (const auto& [hash, value] : found.content) {
    KivCrashMetaData entry;
    if (!isChanged(hash) && CrashIndexFile::decode(value, entry)) {
      add(entry);
    }
  }
  return found.writable ? std::optional(std::move(names)) : std::nullopt;
}

bool CrashIndex::write() noexcept {
  const core::String folder = folder_.get();
  const StoreLock lock(folder);
  int error = ENOMEM;
  withinCrashMemory([&] { error = merge(); });
  if (error != 0 && error != ECANCELED) {
    kiv_log_error("cannot write the crash index in %@: %s", folder, strerrordesc_np(error));
  }
  return error == 0;
}

int CrashIndex::merge() noexcept {
  const State written = state_.get();
  // A crash saves its record and then updates it: the same entry.
  if (core::CrashOwner::isCurrentThread() && written.lastNumber == crashWrote_) {
    return 0;
  }
  const int error = CrashIndexFile(folder_.get()).merge(*written.stored, written.changes, isFileObsolete());
  if (error != 0) {
    return error;
  }
  if (isFileObsolete()) {
    older_ = Older::kGone;
  }
  if (core::CrashOwner::isCurrentThread()) {
    crashWrote_ = written.lastNumber;
  } else if (!written.changes.empty()) {
    state_.update([&](State& state) {
      state.stored = core::Shared<Entries>(CrashIndexFile::changed(*state.stored, written.changes));
      Changes left;
      for (const auto& [hash, change] : state.changes) {
        if (change.number > written.lastNumber) {
          left.set(hash, change);
        }
      }
      state.changes = std::move(left);
    });
  }
  return 0;
}

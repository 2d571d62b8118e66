#include "Kiv/common/KivPersistedKeys.h"

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/PropertyListFile.h"
#include "Platform/Foundation/UserDirectories.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

constexpr std::string_view kFileName = ".kivios.plist";

}  // namespace

KivPersistedKeys& KivPersistedKeys::shared() noexcept {
  static auto& keys = *new KivPersistedKeys;
  return keys;
}

core::String KivPersistedKeys::defaultDirectory() noexcept {
  const core::String library = core::joinPath(platform::applicationSupportDirectory(), "com.velmora.kiv");
  return core::joinPath(library, platform::Bundle::main().identifier());
}

void KivPersistedKeys::load() noexcept {
  if (loaded_.load(std::memory_order_acquire)) {
    return;
  }
  const core::Lock lock(mutex_);
  if (loaded_.load(std::memory_order_relaxed)) {
    return;
  }
  const core::String directory = defaultDirectory();
  if (const int error = core::createDirectories(directory)) {
    kiv_log_error("cannot make the data directory %@: %s", directory, strerrordesc_np(error));
  }
  if (path_.get().empty()) {
    path_.set(core::joinPath(directory, kFileName));
  }
  platform::StoredPropertyList stored = platform::readStoredPropertyList(path_.get());
  writable_ = stored.writable;
  keys_.set(std::move(stored.content));
  loaded_.store(true, std::memory_order_release);
}

std::optional<core::Value> KivPersistedKeys::get(std::string_view key) noexcept {
  load();
  return keys_.read([&](const core::ValueDictionary& keys) {
    const core::Value* value = keys.find(key);
    return value != nullptr ? std::optional(*value) : std::nullopt;
  });
}

void KivPersistedKeys::set(std::string_view key, core::Value value) noexcept {
  load();
  keys_.update([&](core::ValueDictionary& keys) { keys.set(key, value); });
}

void KivPersistedKeys::unset(std::string_view key) noexcept {
  load();
  keys_.update([&](core::ValueDictionary& keys) { keys.remove(key); });
}

core::ValueDictionary KivPersistedKeys::all() noexcept {
  load();
  return keys_.get();
}

KivPersistedKeys::Copy KivPersistedKeys::copy() noexcept {
  load();
  const core::Lock lock(mutex_);
  return {keys_.get(), path_.get(), ++generation_};
}

bool KivPersistedKeys::writeCopy(const Copy& copy) noexcept {
  const core::Lock lock(writing_);
  if (copy.generation < written_) {
    return true;
  }
  if (!writable_ || platform::writeStoredPropertyList(copy.path, copy.keys) != 0) {
    return false;
  }
  written_ = copy.generation;
  return true;
}

void KivPersistedKeys::write() noexcept {
  platform::DispatchQueue::global().async([this, copy = copy()] { writeCopy(copy); });
}

bool KivPersistedKeys::writeNow() noexcept {
  return writeCopy(copy());
}

bool KivPersistedKeys::resetDirectory(std::string_view directory) noexcept {
  const core::String path = directory;
  if (!core::fileExists(path)) {
    kiv_log_info("create dir %@", path);
  }
  if (core::createDirectories(path) != 0) {
    kiv_log_error("error reset bundle path");
    return false;
  }
  const core::Lock lock(mutex_);
  path_.set(core::joinPath(path, kFileName));
  writable_ = true;
  kiv_log_info("reset sdk data path %@", path);
  return true;
}

core::String KivPersistedKeys::path() noexcept {
  load();
  return path_.get();
}

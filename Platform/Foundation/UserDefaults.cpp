#include "Platform/Foundation/UserDefaults.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Core/Files/Directory.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Published.h"
#include "Core/Text/Format.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/SharedPropertyList.h"
#include "Platform/Foundation/UserDirectories.h"
#include "Platform/Logging/NSLog.h"

namespace platform {
namespace {

/// A value that was set and is not in the file yet; null for a key that was removed.
struct Change {
  core::Value value;
  std::uint64_t number;
};
using Changes = core::Dictionary<Change>;

struct State {
  core::ValueDictionary registered;
  core::ValueDictionary stored;  // as the file was last seen
  Changes changes;
  std::uint64_t lastNumber = 0;
};

/// Makes `changes` on `content`; whether that made a difference.
bool apply(const Changes& changes, core::ValueDictionary& content) noexcept {
  bool changed = false;
  for (const auto& [key, change] : changes) {
    const core::Value* held = content.find(key);
    if (change.value.isNull()) {
      changed = content.remove(key) || changed;
    } else if (held == nullptr || !(*held == change.value)) {
      content.set(key, change.value);
      changed = true;
    }
  }
  return changed;
}

}  // namespace

class UserDefaults::Store {
 public:
  explicit Store(core::String path) noexcept : path_(std::move(path)) {
    state_.set(State{{}, readSharedPropertyList(path_).content, {}, 0});
  }

  std::optional<core::Value> find(std::string_view key) const noexcept {
    return state_.read([key](const State& state) -> std::optional<core::Value> {
      const Change* change = state.changes.find(key);
      const core::Value* value = change != nullptr ? &change->value : state.stored.find(key);
      if (value == nullptr || value->isNull()) {
        value = state.registered.find(key);
      }
      return value != nullptr ? std::optional(*value) : std::nullopt;
    });
  }

  void set(std::string_view key, core::Value value) noexcept {
    state_.update([&](State& state) { state.changes.set(key, Change{std::move(value), ++state.lastNumber}); });
  }

  void registerDefaults(const core::ValueDictionary& values) noexcept {
    state_.update([&](State& state) {
      for (const auto& [key, value] : values) {
        state.registered.set(key, value);
      }
    });
  }

  /// Whether a write must be scheduled: false while one waits to begin.
  bool claimWrite() noexcept { return !writeScheduled_.exchange(true); }
  void write() noexcept {
    writeScheduled_ = false;
    if (hasChanges()) {
      synchronize();
    }
  }

  bool synchronize() noexcept {
    const core::Lock lock(synchronizing_);
    bool done = hasChanges() ? writeChanges(lock) : takeOver();
    // A crash that found this lock taken wrote on its own and may have been overwritten here;
    // it leaves its changes as they are for that.
    while (done && core::CrashOwner::exists() && !core::CrashOwner::isCurrentThread() && hasChanges()) {
      done = writeChanges(lock);
    }
    return done;
  }

 private:
  bool hasChanges() const noexcept {
    return state_.read([](const State& state) { return !state.changes.empty(); });
  }

  bool takeOver() noexcept {
    const StoredPropertyList found = readSharedPropertyList(path_);
    if (found.writable) {
      adopt(found.content, 0);
    }
    return found.writable;
  }

  bool writeChanges(const core::Lock& lock) noexcept {
    const State before = state_.get();
    core::ValueDictionary written;
    const int error = changeSharedPropertyList(path_, [&](core::ValueDictionary& content) {
      const bool changed = apply(before.changes, content);
      written = content;
      return changed;
    });
    report(error);
    if (error == 0 && lock.held()) {
      adopt(written, before.lastNumber);
    }
    return error == 0;
  }

  /// `content` is in the file, with all changes up to `lastNumber`.
  void adopt(const core::ValueDictionary& content, std::uint64_t lastNumber) noexcept {
    state_.update([&](State& state) {
      state.stored = content;
      Changes left;
      for (const auto& [key, change] : state.changes) {
        if (change.number > lastNumber) {
          left.set(key, change);
        }
      }
      state.changes = std::move(left);
    });
  }

  void report(int error) noexcept {
    if (error != 0 && error != ECANCELED && error != reportedError_) {
      NSLog("cannot store user defaults in %@: %s", path_, strerrordesc_np(error));
    }
    reportedError_ = error;
  }

  const core::String path_;
  core::Published<State> state_;
  std::atomic<bool> writeScheduled_{false};
  core::Mutex synchronizing_;
  int reportedError_ = 0;  // under synchronizing_
};

UserDefaults& UserDefaults::standard() noexcept {
  static UserDefaults& defaults = *new UserDefaults(
      core::joinPath(configurationDirectory(), core::kiv_format("%@.plist", Bundle::main().identifier())));
  return defaults;
}

UserDefaults::UserDefaults(core::String path, DispatchQueue& queue) noexcept
    : store_(std::make_shared<Store>(std::move(path))), queue_(queue) {}

std::optional<core::Value> UserDefaults::object(std::string_view key) const noexcept {
  return store_->find(key);
}

bool UserDefaults::boolean(std::string_view key) const noexcept {
  const std::optional<core::Value> value = object(key);
  return value && value->asBoolean().value_or(false);
}

std::int64_t UserDefaults::integer(std::string_view key) const noexcept {
  const std::optional<core::Value> value = object(key);
  return value ? value->asInteger().value_or(0) : 0;
}

std::optional<core::String> UserDefaults::string(std::string_view key) const noexcept {
  const std::optional<core::Value> value = object(key);
  const core::String* text = value ? value->string() : nullptr;
  return text != nullptr ? std::optional(*text) : std::nullopt;
}

std::optional<core::ValueDictionary> UserDefaults::dictionary(std::string_view key) const noexcept {
  const std::optional<core::Value> value = object(key);
  const core::ValueDictionary* entries = value ? value->dictionary() : nullptr;
  return entries != nullptr ? std::optional(*entries) : std::nullopt;
}

void UserDefaults::setObject(std::string_view key, core::Value value) noexcept {
  store_->set(key, std::move(value));
  // On the owner of a crash the queue calls at once what may wait there for ever.
  if (store_->claimWrite() || core::CrashOwner::isCurrentThread()) {
    queue_.async([store = store_] { store->write(); });
  }
}

void UserDefaults::removeObject(std::string_view key) noexcept {
  setObject(key, core::Value());
}

void UserDefaults::registerDefaults(const core::ValueDictionary& values) noexcept {
  store_->registerDefaults(values);
}

bool UserDefaults::synchronize() noexcept {
  return store_->synchronize();
}

}  // namespace platform

#include "Platform/Foundation/Bundle.h"

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Memory/Mutex.h"
#include "Core/Text/Format.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Foundation/PropertyListReader.h"

namespace platform {
namespace {

struct Main {
  core::Mutex mutex;
  std::optional<core::String> path;  // that a test has set
  bool made = false;
};

Main& mainState() noexcept {
  static auto& state = *new Main;
  return state;
}

const Bundle& makeMain() noexcept {
  Main& state = mainState();
  const core::Lock lock(state.mutex);
  state.made = true;
  return *new Bundle(state.path.value_or(core::parentPath(executablePath())));
}

}  // namespace

const Bundle& Bundle::main() noexcept {
  static const Bundle& bundle = makeMain();
  return bundle;
}

bool Bundle::setMainForTesting(core::String path) noexcept {
  Main& state = mainState();
  const core::Lock lock(state.mutex);
  if (state.made) {
    return false;
  }
  state.path = std::move(path);
  return true;
}

Bundle::Bundle(core::String path) noexcept : path_(std::move(path)) {
  const core::String file = core::joinPath(path_, "Info.plist");
  if (path_.empty() || !core::fileExists(file)) {
    return;
  }
  const core::Result<core::Value> read = readPropertyListFile(file, kInfoLimit);
  if (!read) {
    problem_ = core::kiv_format("%@: %s (at byte %lu)", file, read.error().reason, read.error().offset);
  } else if (const core::ValueDictionary* entries = read->dictionary()) {
    info_ = *entries;
  } else {
    problem_ = core::kiv_format("%@: is not a dictionary", file);
  }
}

core::String Bundle::resourcePath() const noexcept {
  return core::joinPath(path_, "Resources");
}

std::optional<core::String> Bundle::resourcePath(std::string_view name, std::string_view type) const noexcept {
  const core::String file = type.empty() ? core::String(name) : core::kiv_format("%@.%@", name, type);
  core::String path = core::joinPath(resourcePath(), file);
  return core::fileExists(path) ? std::optional(std::move(path)) : std::nullopt;
}

std::optional<core::String> Bundle::infoString(std::string_view key) const noexcept {
  const core::Value* value = info(key);
  const core::String* text = value != nullptr ? value->string() : nullptr;
  return text != nullptr ? std::optional(*text) : std::nullopt;
}

bool Bundle::infoBoolean(std::string_view key) const noexcept {
  const core::Value* value = info(key);
  return value != nullptr && value->asBoolean().value_or(false);
}

core::String Bundle::identifier() const noexcept {
  return infoString("CFBundleIdentifier").value_or(executableName());
}

core::String Bundle::executableName() noexcept {
  return processName();
}

}  // namespace platform

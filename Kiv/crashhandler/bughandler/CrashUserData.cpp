#include "Kiv/crashhandler/bughandler/CrashUserData.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "Core/Text/Format.h"
#include "Kiv/common/utils/KivLog.h"

namespace {

bool isWithinLimits(const core::String& key, const core::String& value) noexcept {
  return key.characters() <= CrashUserData::kMostKeyLength && value.characters() <= CrashUserData::kMostValueLength;
}

bool isLetterOrDigit(char c) noexcept {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z');
}

bool isSceneKey(std::string_view key) noexcept {
  return !key.empty() && std::all_of(key.begin(), key.end(), isLetterOrDigit);
}

void warnOfLength(const CrashUserData::Text& key, const CrashUserData::Text& value) noexcept {
  kiv_log_warn("string out of limit length for [%@: %@]", key, value);
}

}  // namespace

void CrashUserData::appendSessionEvent(const Text& event) noexcept {
  if (!event || core::trimmed(*event).empty() || event->characters() > kMostEventLength) {
    return;
  }
  sessionEvents_.update([&](Texts& events) {
    if (events.size() >= kMostEvents) {
      events.removeAt(0);
    }
    events.append(*event);
  });
  changed_.call(Kind::kEvents);
}

void CrashUserData::addUserMapData(const Text& key, const Text& value) noexcept {
  if (!key || !value || !isWithinLimits(*key, *value)) {
    warnOfLength(key, value);
    return;
  }
  const std::size_t count = userMaps_.update([&](Map& entries) {
    const std::size_t held = entries.size();
    if (held < kMostUserValues) {
      entries.set(*key, *value);
    }
    return held;
  });
  if (count >= kMostUserValues) {
    kiv_log_warn("key-value data size[%lu] out of limit count [20]", count);
  } else {
    changed_.call(Kind::kUserMaps);
  }
}

void CrashUserData::setUserMaps(Map entries) noexcept {
  userMaps_.set(std::move(entries));
  changed_.call(Kind::kUserMaps);
}

void CrashUserData::setSceneData(Map entries) noexcept {
  sceneData_.set(std::move(entries));
  changed_.call(Kind::kScenes);
}

void CrashUserData::setSceneNumber(const char* key, unsigned long scene) noexcept {
  sceneData_.update([&](Map& entries) { entries.set(key, core::kiv_format("%lu", scene)); });
  changed_.call(Kind::kScenes);
}

unsigned long CrashUserData::currentScene() const noexcept {
  return sceneData_.read([](const Map& entries) {
    unsigned long scene = 0;
    if (const core::String* text = entries.find("C01")) {
      std::from_chars(text->data(), text->data() + text->size(), scene);
    }
    return scene;
  });
}

void CrashUserData::addSceneValue(const Text& value, const Text& key) noexcept {
  if (!key || !value || !isWithinLimits(*key, *value)) {
    warnOfLength(key, value);
    return;
  }
  if (!isSceneKey(*key)) {
    return;
  }
  const std::size_t count = sceneData_.update([&](Map& entries) {
    const std::size_t held = entries.size();
    if (held < kMostSceneEntries) {
      entries.set(core::kiv_format("%@%@", "C03_", *key), *value);
    }
    return held;
  });
  if (count >= kMostSceneEntries) {
    kiv_log_warn("scene key-value data size[%lu] out of limit count [15]", count);
  } else {
    changed_.call(Kind::kScenes);
  }
}

void CrashUserData::addSdkSceneValue(const Text& value, const Text& key) noexcept {
  if (key && value && isSceneKey(*key)) {
    sceneData_.update([&](Map& entries) { entries.set(core::kiv_format("%@%@", "C04_", *key), *value); });
    changed_.call(Kind::kScenes);
  }
}

void CrashUserData::removeSceneValueForKey(const Text& key) noexcept {
  if (key) {
    sceneData_.update([&](Map& entries) { entries.remove(*key); });
    changed_.call(Kind::kScenes);
  }
}

CrashUserData::Text CrashUserData::sceneValueForKey(const Text& key) const noexcept {
  return sceneData_.read([&key](const Map& entries) -> Text {
    const core::String* value = key ? entries.find(*key) : nullptr;
    return value != nullptr ? Text(*value) : std::nullopt;
  });
}

#include "Kiv/common/utils/KivBundleUtil.h"

#include <atomic>

#include "Core/Memory/Mutex.h"
#include "Core/Text/Uuid.h"
#include "Kiv/common/KivPersistedKeys.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Security/Keychain.h"

namespace {

using Text = KivBundleUtil::Text;

struct KeychainPlace {
  const char* account;
  const char* service;
};
constexpr KeychainPlace kVorinPlace = {"kiv.vorin", "velmora.tkw.analytics"};
constexpr KeychainPlace kOpenUdidPlace = {"kiv.openuuid", "kiv.service"};
constexpr std::string_view kVorinKey = "ana_vorin";
constexpr std::string_view kOpenUdidKey = "kiv.openuuid";

Text persistedText(std::string_view key) noexcept {
  const std::optional<core::Value> value = KivPersistedKeys::shared().get(key);
  const core::String* text = value ? value->string() : nullptr;
  return text != nullptr ? Text(*text) : std::nullopt;
}

Text keychainText(const KeychainPlace& place) noexcept {
  KivBundleUtil::KeychainError error;
  return KivBundleUtil::getPasswordForUsername(core::String(place.account), core::String(place.service), error);
}

bool flag(const core::ValueDictionary& dictionary, std::string_view key) noexcept {
  const core::Value* value = dictionary.find(key);
  return value != nullptr && value->asBoolean().value_or(false);
}

const core::ValueDictionary* nonEmptyDictionary(const core::Value* value) noexcept {
  const core::ValueDictionary* dictionary = value != nullptr ? value->dictionary() : nullptr;
  return dictionary != nullptr && !dictionary->empty() ? dictionary : nullptr;
}

}  // namespace

Text KivBundleUtil::getBundleId() noexcept {
  return platform::Bundle::main().infoString("CFBundleIdentifier");
}

Text KivBundleUtil::getBundleName() noexcept {
  return platform::Bundle::main().infoString("CFBundleName");
}

Text KivBundleUtil::getBundleVersion() noexcept {
  return platform::Bundle::main().infoString("CFBundleVersion");
}

Text KivBundleUtil::getBundleShortVer() noexcept {
  return platform::Bundle::main().infoString("CFBundleShortVersionString");
}

Text KivBundleUtil::getBundleExe() noexcept {
  return platform::Bundle::main().infoString("CFBundleExecutable");
}

Text KivBundleUtil::getOrvCIBuildUUID() noexcept {
  return platform::Bundle::main().infoString("com.velmora.orv.uuid");
}

Text KivBundleUtil::getVorin() noexcept {
  Text vorin = keychainText(kVorinPlace);
  kiv_log_info("got vorin by keychain %@", vorin);
  if (vorin && !vorin->empty()) {
    return vorin;
  }
  vorin = persistedText(kVorinKey);
  kiv_log_info("got vorin by local %@", vorin);
  return vorin;
}

void KivBundleUtil::saveVorin(const Text& vorin) noexcept {
  if (vorin && !vorin->empty()) {
    kiv_log_info("do not save vorin: %@", vorin);
  } else {
    kiv_log_info("do not save empty vorin: %@", vorin);
  }
}

Text KivBundleUtil::getAnaOpenUdid() noexcept {
  static core::Mutex mutex;
  const core::Lock lock(mutex);
  if (Text held = persistedText(kOpenUdidKey)) {
    return held;
  }
  Text identifier = keychainText(kOpenUdidPlace);
  if (!identifier) {
    identifier = createOpenUdid();
  }
  KivPersistedKeys::shared().set(kOpenUdidKey, core::Value(*identifier));
  KeychainError error;
  if (!storeUsername(core::String(kOpenUdidPlace.account), identifier, core::String(kOpenUdidPlace.service), true,
                     error)) {
    kiv_log_error("cannot keep the device identifier in the keychain: %@ %d", KeychainError::kDomain, error.code);
  }
  return identifier;
}

core::String KivBundleUtil::createOpenUdid() noexcept {
  return core::generateUuid();
}

Text KivBundleUtil::getPasswordForUsername(const Text& username, const Text& service, KeychainError& error) noexcept {
  error = {};
  if (!username || !service) {
    error.code = KeychainError::kMissingArgument;
    return std::nullopt;
  }
  const auto item = platform::Keychain::standard().find(*username, *service);
  if (!item) {
    if (item.error() != platform::errSecItemNotFound) {
      error.code = item.error();
    }
    return std::nullopt;
  }
  if (!item->data) {
    error.code = KeychainError::kBrokenItem;
    return std::nullopt;
  }
  return core::String(std::string_view(reinterpret_cast<const char*>(item->data->data()), item->data->size()));
}

bool KivBundleUtil::storeUsername(const Text& username, const Text& password, const Text& service, bool updateExisting,
                                  KeychainError& error) noexcept {
  return storeUsername(username, password, service, updateExisting, platform::kSecAttrAccessibleWhenUnlocked, error);
}

bool KivBundleUtil::storeUsername(const Text& username, const Text& password, const Text& service, bool updateExisting,
                                  std::string_view accessibility, KeychainError& error) noexcept {
  if (!username || !password || !service) {
    error.code = KeychainError::kMissingArgument;
    return false;
  }
  const Text existing = getPasswordForUsername(username, service, error);
  if (error.code == KeychainError::kBrokenItem) {
    if (!deleteItemForUsername(username, service, error)) {
      return false;
    }
  } else if (error.code != 0) {
    return false;
  }
  if (existing && (*existing == *password || !updateExisting)) {
    return true;
  }
  platform::KeychainItem item;
  item.account = *username;
  item.service = *service;
  item.label = *service;
  item.accessibility = accessibility;
  core::Data data(password->data(), password->size());
  platform::Keychain& keychain = platform::Keychain::standard();
  if (existing) {
    error.code = keychain.update(item, std::move(data));
  } else {
    item.data = std::move(data);
    error.code = keychain.add(item);
  }
  return error.code == 0;
}

bool KivBundleUtil::deleteItemForUsername(const Text& username, const Text& service, KeychainError& error) noexcept {
  error = {};
  if (!username || !service) {
    error.code = KeychainError::kMissingArgument;
    return false;
  }
  error.code = platform::Keychain::standard().remove(*username, *service);
  return error.code == 0;
}

bool KivBundleUtil::isATSAllowsArbitraryLoads() noexcept {
  const core::ValueDictionary* security = nonEmptyDictionary(platform::Bundle::main().info("NSAppTransportSecurity"));
  if (security == nullptr) {
    return false;
  }
  if (const core::ValueDictionary* domains = nonEmptyDictionary(security->find("NSExceptionDomains"))) {
    if (const core::ValueDictionary* entry = nonEmptyDictionary(domains->find(KivCollectEndpoint::host()))) {
      return flag(*entry, "NSThirdPartyExceptionAllowsInsecureHTTPLoads") ||
             flag(*entry, "NSExceptionAllowsInsecureHTTPLoads");
    }
  }
  return flag(*security, "NSAllowsArbitraryLoads");
}

bool KivBundleUtil::isTheAppStoreEnvironment() noexcept {
  enum : signed char { kUnknown, kNo, kYes };
  static std::atomic<signed char> known{kUnknown};
  if (known == kUnknown) {
    known = platform::Bundle::main().resourcePath("embedded", "mobileprovision").has_value() ? kNo : kYes;
  }
  return known == kYes;
}

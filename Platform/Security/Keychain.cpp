#include "Platform/Security/Keychain.h"

#include <utility>

#include "Core/Files/Directory.h"
#include "Core/Memory/Block.h"
#include "Platform/Foundation/SharedPropertyList.h"
#include "Platform/Foundation/UserDirectories.h"

namespace platform {
namespace {

constexpr std::string_view kItemsKey = "Items";
constexpr std::string_view kDataKey = "Data";

struct Attribute {
  std::string_view key;
  core::String KeychainItem::*member;
  bool identifies;
};
constexpr Attribute kAttributes[] = {
    {"Class", &KeychainItem::itemClass, true},
    {"Account", &KeychainItem::account, true},
    {"Service", &KeychainItem::service, true},
    {"Label", &KeychainItem::label, false},
    {"Accessibility", &KeychainItem::accessibility, false},
};

core::Value encoded(const KeychainItem& item) noexcept {
  core::ValueDictionary entry;
  for (const auto& [key, member, identifies] : kAttributes) {
    entry.set(key, item.*member);
  }
  if (item.data) {
    entry.set(kDataKey, *item.data);
  }
  return entry;
}

KeychainItem decoded(const core::Value& value) noexcept {
  KeychainItem item;
  item.itemClass = core::String();
  const core::ValueDictionary* entry = value.dictionary();
  if (entry == nullptr) {
    return item;
  }
  for (const auto& [key, member, identifies] : kAttributes) {
    const core::Value* attribute = entry->find(key);
    const core::String* text = attribute != nullptr ? attribute->string() : nullptr;
    item.*member = text != nullptr ? *text : core::String();
  }
  const core::Value* data = entry->find(kDataKey);
  if (data != nullptr && data->data() != nullptr) {
    item.data = *data->data();
  }
  return item;
}

bool matches(const KeychainItem& item, const KeychainItem& query) noexcept {
  for (const auto& [key, member, identifies] : kAttributes) {
    const bool asked = identifies || !(query.*member).empty();
    if (asked && item.*member != query.*member) {
      return false;
    }
  }
  return true;
}

KeychainItem queryFor(std::string_view account, std::string_view service) noexcept {
  KeychainItem query;
  query.account = account;
  query.service = service;
  return query;
}

core::ValueArray itemsOf(const core::ValueDictionary& content) noexcept {
  const core::Value* items = content.find(kItemsKey);
  return items != nullptr && items->array() != nullptr ? *items->array() : core::ValueArray();
}

/// Place of the first match, the number of items for none.
std::size_t positionOf(const KeychainItem& query, const core::ValueArray& items) noexcept {
  std::size_t position = 0;
  while (position < items.size() && !matches(decoded(items[position]), query)) {
    ++position;
  }
  return position;
}

/// Lets `change` alter the items; they are written when it answers errSecSuccess.
KeychainStatus changeItems(const core::String& path,
                           const core::Block<KeychainStatus(core::ValueArray&)>& change) noexcept {
  KeychainStatus status = errSecSuccess;
  const int error = changeSharedPropertyList(path, [&](core::ValueDictionary& content) {
    core::ValueArray items = itemsOf(content);
    status = change(items);
    content.set(kItemsKey, core::Value(std::move(items)));
    return status == errSecSuccess;
  });
  return error == 0 ? status : errSecIO;
}

}  // namespace

Keychain& Keychain::standard() noexcept {
  static Keychain& keychain = *new Keychain(core::joinPath(applicationSupportDirectory(), "Keychain/passwords.plist"));
  return keychain;
}

Keychain::Keychain(core::String path) noexcept : path_(std::move(path)) {}

core::Result<KeychainItem, KeychainStatus> Keychain::find(std::string_view account,
                                                          std::string_view service) const noexcept {
  const StoredPropertyList stored = readSharedPropertyList(path_);
  if (!stored.writable) {
    return errSecIO;
  }
  const core::ValueArray items = itemsOf(stored.content);
  const std::size_t position = positionOf(queryFor(account, service), items);
  if (position == items.size()) {
    return errSecItemNotFound;
  }
  return decoded(items[position]);
}

KeychainStatus Keychain::add(const KeychainItem& item) noexcept {
  return changeItems(path_, [&](core::ValueArray& items) {
    if (positionOf(queryFor(item.account, item.service), items) != items.size()) {
      return errSecDuplicateItem;
    }
    items.append(encoded(item));
    return errSecSuccess;
  });
}

KeychainStatus Keychain::update(const KeychainItem& query, core::Data data) noexcept {
  return changeItems(path_, [&](core::ValueArray& items) {
    const std::size_t position = positionOf(query, items);
    if (position == items.size()) {
      return errSecItemNotFound;
    }
    core::ValueDictionary entry = *items[position].dictionary();
    entry.set(kDataKey, std::move(data));
    items[position] = core::Value(std::move(entry));
    return errSecSuccess;
  });
}

KeychainStatus Keychain::remove(std::string_view account, std::string_view service) noexcept {
  return changeItems(path_, [&](core::ValueArray& items) {
    const std::size_t position = positionOf(queryFor(account, service), items);
    if (position == items.size()) {
      return errSecItemNotFound;
    }
    items.removeAt(position);
    return errSecSuccess;
  });
}

}  // namespace platform

#pragma once

#include <optional>
#include <string_view>

#include "Core/Memory/Bytes.h"
#include "Core/Memory/Result.h"
#include "Core/Memory/String.h"

namespace platform {

/// How a keychain operation ended.
using KeychainStatus = int;
inline constexpr KeychainStatus errSecSuccess = 0;
inline constexpr KeychainStatus errSecIO = -36;  ///< the file cannot be read, written or made
inline constexpr KeychainStatus errSecDuplicateItem = -25299;
inline constexpr KeychainStatus errSecItemNotFound = -25300;

/// The only class of items that is kept, and when an item may be read.
inline constexpr std::string_view kSecClassGenericPassword = "genp";
inline constexpr std::string_view kSecAttrAccessibleWhenUnlocked = "ak";

/// A password with its attributes. There may be items without data, which others left broken.
struct KeychainItem {
  core::String itemClass = kSecClassGenericPassword;
  core::String account = {};
  core::String service = {};
  core::String label = {};
  core::String accessibility = {};
  std::optional<core::Data> data = {};
  friend bool operator==(const KeychainItem&, const KeychainItem&) = default;
};

/// The user's passwords, shared by all programs of this user: a property list that only the
/// user may read (0600) in a folder that only the user may enter (0700). An item is identified
/// by class, account and service. A file that cannot be understood is moved aside and
/// reported in the log.
///
/// Any thread and process at a time; normal running only. The file is read anew each time.
class Keychain {
 public:
  /// "Keychain/passwords.plist" under Application Support. Never destroyed.
  static Keychain& standard() noexcept;

  explicit Keychain(core::String path) noexcept;

  core::Result<KeychainItem, KeychainStatus> find(std::string_view account, std::string_view service) const noexcept;
  KeychainStatus add(const KeychainItem& item) noexcept;
  /// Gives `data` to the item with the query's class, account and service, provided that it has
  /// its label and accessibility as well; an empty one of these two matches any.
  KeychainStatus update(const KeychainItem& query, core::Data data) noexcept;
  KeychainStatus remove(std::string_view account, std::string_view service) noexcept;

 private:
  const core::String path_;
};

}  // namespace platform

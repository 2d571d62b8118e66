#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Core/Memory/String.h"

/// Facts of the main bundle, the two device identifiers, and the keychain that keeps them.
/// Stateless; any thread.
class KivBundleUtil {
 public:
  using Text = std::optional<core::String>;

  /// Why a keychain operation failed. Code 0 is no error; codes of the keychain itself are
  /// passed on as they are.
  struct KeychainError {
    static constexpr std::string_view kDomain = "KIVKeychainUtilsErrorDomain";
    static constexpr std::int32_t kBrokenItem = -1999;       ///< attributes without data
    static constexpr std::int32_t kMissingArgument = -2000;  ///< no user name, service or password
    std::int32_t code = 0;
  };

  KivBundleUtil() = delete;

  static Text getBundleId() noexcept;
  static Text getBundleName() noexcept;
  static Text getBundleVersion() noexcept;
  static Text getBundleShortVer() noexcept;
  static Text getBundleExe() noexcept;
  /// The identifier that the build platform stamped into the bundle.
  static Text getOrvCIBuildUUID() noexcept;

  /// The device identifier that the identifier service issued: from the keychain, else the one
  /// kept in the data directory.
  static Text getVorin() noexcept;
  /// Only logs: the service itself keeps its identifier.
  static void saveVorin(const Text& vorin) noexcept;

  /// The device identifier made here: of the data directory, else the keychain's, else a new one,
  /// which then stands in both.
  static Text getAnaOpenUdid() noexcept;
  static core::String createOpenUdid() noexcept;

  /// Generic passwords; stored ones may be read when the keychain is unlocked unless
  /// `accessibility` says otherwise. Reading answers nothing without an error where there is no such item.
  static Text getPasswordForUsername(const Text& username, const Text& service, KeychainError& error) noexcept;
  static bool storeUsername(const Text& username, const Text& password, const Text& service, bool updateExisting,
                            KeychainError& error) noexcept;
  static bool storeUsername(const Text& username, const Text& password, const Text& service, bool updateExisting,
                            std::string_view accessibility, KeychainError& error) noexcept;
  static bool deleteItemForUsername(const Text& username, const Text& service, KeychainError& error) noexcept;

  /// Whether the bundle's transport security lets plain http through to the collector.
  static bool isATSAllowsArbitraryLoads() noexcept;
  /// Whether the bundle came from the store: it holds no "embedded.mobileprovision".
  static bool isTheAppStoreEnvironment() noexcept;
};

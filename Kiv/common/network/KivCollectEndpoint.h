#pragma once

#include <string_view>

#include "Core/Memory/String.h"

/// The address that reports are sent to when no strategy names another.
///
/// First the one that the program set, else the main bundle's "ZephyCollectURLString", else
/// the built-in placeholder, whose host does not exist. Any thread.
class KivCollectEndpoint {
 public:
  static constexpr std::string_view kPlaceholder = "https://collect.velmora.example/analytics/kivsync";
  /// The service's web site, which texts for developers point to.
  static constexpr std::string_view kWebSiteHost = "www.velmora.example";

  static core::String url() noexcept;

  /// False, changing nothing, for anything but an http or https URL with a host.
  static bool setUrl(std::string_view url) noexcept;

  /// The host name of url(), without user, port and brackets.
  static core::String host() noexcept;
};

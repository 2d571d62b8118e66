#include "Kiv/common/network/KivCollectEndpoint.h"

#include <optional>

#include "Core/Memory/Published.h"
#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/Bundle.h"

namespace {

/// What stands between "://" and the path of an http or https URL; empty for anything else.
std::string_view authorityOf(std::string_view url) noexcept {
  std::string_view rest;
  for (const std::string_view scheme : {std::string_view("http://"), std::string_view("https://")}) {
    if (core::uppercased(url.substr(0, scheme.size())) == core::uppercased(scheme).view()) {
      rest = url.substr(scheme.size());
    }
  }
  return rest.substr(0, rest.find_first_of("/?#"));
}

std::string_view hostOf(std::string_view url) noexcept {
  std::string_view authority = authorityOf(url);
  if (const std::size_t user = authority.rfind('@'); user != std::string_view::npos) {
    authority.remove_prefix(user + 1);
  }
  if (authority.starts_with('[')) {
    const std::size_t end = authority.find(']');
    return end == std::string_view::npos ? std::string_view() : authority.substr(1, end - 1);
  }
  return authority.substr(0, authority.find(':'));
}

bool isCollectUrl(std::string_view url) noexcept {
  for (const char byte : url) {
    if (static_cast<unsigned char>(byte) <= ' ' || byte == '\x7f') {
      return false;
    }
  }
  return !hostOf(url).empty();
}

std::optional<core::String> urlOfBundle() noexcept {
  const std::optional<core::String> text = platform::Bundle::main().infoString("ZephyCollectURLString");
  if (text && !isCollectUrl(*text)) {
    kiv_log_always("<Warning> Zephy: ZephyCollectURLString is not an http or https URL [%@]", *text);
    return std::nullopt;
  }
  return text;
}

core::Published<core::String>& current() noexcept {
  static auto& url = *new core::Published<core::String>(urlOfBundle().value_or(KivCollectEndpoint::kPlaceholder));
  return url;
}

}  // namespace

core::String KivCollectEndpoint::url() noexcept {
  return current().get();
}

bool KivCollectEndpoint::setUrl(std::string_view url) noexcept {
  if (!isCollectUrl(url)) {
    return false;
  }
  current().set(url);
  return true;
}

core::String KivCollectEndpoint::host() noexcept {
  return hostOf(url());
}

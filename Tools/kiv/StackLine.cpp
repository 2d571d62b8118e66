#include "Tools/kiv/StackLine.h"

#include <algorithm>

#include "Core/Memory/String.h"
#include "Platform/Foundation/CallStack.h"

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
constexpr std::string_view kAddressPrefix = " 0x";
constexpr std::size_t kAddressDigits = 16;
constexpr std::string_view kDistance = " + ";
constexpr std::string_view kVariant = " [clone ";
constexpr std::string_view kUnnamed = "(anonymous namespace)::";

}  // namespace

std::optional<StackLine> StackLine::parse(std::string_view line) {
  const std::size_t behindNumber = line.find_first_not_of(kDigits);
  if (behindNumber == 0 || behindNumber == std::string_view::npos || line[behindNumber] != ' ') {
    return std::nullopt;
  }
  // A module's name may hold blanks, and even what looks like the beginning of an address.
  for (std::size_t at = line.find(kAddressPrefix, behindNumber); at != std::string_view::npos;
       at = line.find(kAddressPrefix, at + 1)) {
    const std::size_t digits = at + kAddressPrefix.size();
    const std::size_t end = std::min(line.find_first_not_of(kHexDigits, digits), line.size());
    if (end - digits == kAddressDigits && (end == line.size() || line[end] == ' ')) {
      return StackLine{core::trimmed(line.substr(behindNumber, at - behindNumber)), core::trimmed(line.substr(end))};
    }
  }
  return std::nullopt;
}

std::string StackLine::brief() const {
  const std::size_t distance = std::min(symbol.rfind(kDistance), symbol.size());
  if (symbol.empty() || symbol.starts_with("0x")) {
    return std::string(module) + std::string(symbol.substr(distance));
  }
  std::string name = platform::demangledName(std::string(symbol.substr(0, distance)).c_str());
  name.erase(std::min(name.find(kVariant), name.size()));
  for (std::size_t at = name.find(kUnnamed); at != std::string::npos; at = name.find(kUnnamed, at)) {
    name.erase(at, kUnnamed.size());
  }
  return name;
}

#include "Platform/Foundation/PropertyListReader.h"

#include <cerrno>
#include <charconv>
#include <optional>
#include <pugixml.hpp>
#include <string_view>

#include "Core/Files/File.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/LocalTime.h"
#include "Core/Text/Utf8.h"

namespace platform {
namespace {

using core::ParseError;
using core::Result;
using core::Value;

constexpr bool isXmlCharacter(std::uint32_t codePoint) noexcept {
  return codePoint == '\t' || codePoint == '\n' || codePoint == '\r' || (codePoint >= 0x20 && codePoint < 0xD800) ||
         (codePoint >= 0xE000 && codePoint < 0xFFFE) || (codePoint >= 0x10000 && codePoint <= 0x10FFFF);
}

/// All of `text` as a number of the base.
template <class Number>
std::optional<Number> parsed(std::string_view text, int base) noexcept {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

/// The character that an entity names, without its "&" and ";".
std::optional<char32_t> entityCharacter(std::string_view name) noexcept {
  struct Named {
    std::string_view name;
    char32_t character;
  };
  for (const Named& named : {Named{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}}) {
    if (named.name == name) {
      return named.character;
    }
  }
  std::optional<std::uint32_t> number;
  if (name.starts_with("#x")) {
    number = parsed<std::uint32_t>(name.substr(2), 16);
  } else if (name.starts_with('#')) {
    number = parsed<std::uint32_t>(name.substr(1), 10);
  }
  return number && isXmlCharacter(*number) ? std::optional<char32_t>(*number) : std::nullopt;
}

bool appendWithEntities(std::string_view text, core::StringBuilder& out) noexcept {
  for (std::size_t at; (at = text.find('&')) != std::string_view::npos;) {
    out.append(text.substr(0, at));
    text.remove_prefix(at + 1);
    const std::size_t end = text.find(';');
    const auto character = end == std::string_view::npos ? std::nullopt : entityCharacter(text.substr(0, end));
    if (!character) {
      return false;
    }
    core::encodeUtf8(*character, out.extend(core::utf8Size(*character)));
    text.remove_prefix(end + 1);
  }
  out.append(text);
  return true;
}

bool isUtf8(std::string_view text) noexcept {
  while (!text.empty()) {
    const core::Utf8Character character = core::decodeUtf8(text);
    if (!character.valid) {
      return false;
    }
    text.remove_prefix(character.size);
  }
  return true;
}

std::optional<Value> parsedInteger(std::string_view text) noexcept {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) {
    text.remove_prefix(1);
  }
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  const auto magnitude = parsed<std::uint64_t>(hexadecimal ? text.substr(2) : text, hexadecimal ? 16 : 10);
  constexpr std::uint64_t kLeastSigned = std::uint64_t{1} << 63;
  if (!magnitude || (negative && *magnitude > kLeastSigned)) {
    return std::nullopt;
  }
  return negative ? Value(static_cast<std::int64_t>(0 - *magnitude)) : Value(*magnitude);
}

std::optional<Value> parsedReal(std::string_view text) noexcept {
  if (text.starts_with('+') && !text.starts_with("+-")) {
    text.remove_prefix(1);
  }
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return Value(number);
}

/// "2024-02-29T23:59:59Z"
std::optional<Value> parsedDate(std::string_view text) noexcept {
  constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
  if (text.size() != kShape.size()) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == '0' ? !digit : text[i] != kShape[i]) {
      return std::nullopt;
    }
  }
  const auto field = [&](std::size_t at, std::size_t size) { return *parsed<int>(text.substr(at, size), 10); };
  const core::CivilTime time{field(0, 4), field(5, 2), field(8, 2), field(11, 2), field(14, 2), field(17, 2), 0};
  const std::int64_t seconds = core::secondsSince1970(time, 0);
  // A day or an hour that does not exist comes back as another one.
  const core::CivilTime back = core::civilTime(seconds, 0);
  if (back.year != time.year || back.month != time.month || back.day != time.day || back.hour != time.hour ||
      back.minute != time.minute || back.second != time.second) {
    return std::nullopt;
  }
  return Value(core::Date{static_cast<double>(seconds) - core::Date::kSecondsFrom1970});
}

constexpr int base64Digit(char byte) noexcept {
  if (byte >= 'A' && byte <= 'Z') {
    return byte - 'A';
  }
  if (byte >= 'a' && byte <= 'z') {
    return byte - 'a' + 26;
  }
  if (byte >= '0' && byte <= '9') {
    return byte - '0' + 52;
  }
  return byte == '+' ? 62 : byte == '/' ? 63 : -1;
}

/// Base64 with white space anywhere.
std::optional<Value> parsedData(std::string_view text) noexcept {
  core::StringBuilder out(text.size() / 4 * 3);
  std::uint32_t group = 0;
  int digits = 0;
  int padding = 0;
  for (const char byte : text) {
    if (byte == ' ' || (byte >= '\t' && byte <= '\r')) {
      continue;
    }
    const int digit = byte == '=' ? 0 : base64Digit(byte);
    padding += byte == '=' ? 1 : 0;
    if (digit < 0 || (padding != 0 && byte != '=') || padding > 2) {
      return std::nullopt;
    }
    group = (group << 6) | static_cast<std::uint32_t>(digit);
    if (++digits % 4 == 0) {
      for (int i = 0; i < 3 - padding; ++i) {
        out.append(static_cast<char>((group >> (16 - 8 * i)) & 0xFF));
      }
    }
  }
  if (digits % 4 != 0) {
    return std::nullopt;
  }
  return Value(core::Data(out.view().data(), out.size()));
}

ParseError errorAt(const char* reason, const pugi::xml_node& node) noexcept {
  return {reason, static_cast<std::size_t>(node.offset_debug())};
}

bool isText(const pugi::xml_node& node) noexcept {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

Result<core::String> textOf(const pugi::xml_node& element) noexcept {
  core::StringBuilder text;
  for (const pugi::xml_node& part : element.children()) {
    if (!isText(part)) {
      return errorAt("an element inside of text", part);
    }
    if (part.type() == pugi::node_cdata) {
      text.append(part.value());
    } else if (!appendWithEntities(part.value(), text)) {
      return errorAt("an unknown entity", part);
    }
  }
  if (!isUtf8(text.view())) {
    return errorAt("text that is not UTF-8", element);
  }
  return text.str();
}

/// The first element from `node` on: text between elements may only be white space.
Result<pugi::xml_node> elementFrom(pugi::xml_node node) noexcept {
  for (; isText(node); node = node.next_sibling()) {
    if (!core::trimmed(node.value()).empty()) {
      return errorAt("text between elements", node);
    }
  }
  return node;
}

Result<Value> readElement(const pugi::xml_node& element, int level) noexcept;

Result<Value> readArray(const pugi::xml_node& element, int level) noexcept {
  core::ValueArray items;
  Result<pugi::xml_node> child = elementFrom(element.first_child());
  for (; child && *child; child = elementFrom(child->next_sibling())) {
    Result<Value> item = readElement(*child, level + 1);
    if (!item) {
      return item;
    }
    items.append(std::move(*item));
  }
  return child ? Result<Value>(std::move(items)) : child.error();
}

Result<Value> readDictionary(const pugi::xml_node& element, int level) noexcept {
  core::ValueDictionary entries;
  Result<pugi::xml_node> child = elementFrom(element.first_child());
  for (; child && *child; child = elementFrom(child->next_sibling())) {
    const pugi::xml_node name = *child;
    if (name.name() != std::string_view("key")) {
      return errorAt("a value without a key", name);
    }
    const Result<core::String> key = textOf(name);
    if (!key) {
      return key.error();
    }
    child = elementFrom(name.next_sibling());
    if (!child) {
      break;
    }
    if (!*child) {
      return errorAt("a key without a value", name);
    }
    Result<Value> value = readElement(*child, level + 1);
    if (!value) {
      return value;
    }
    entries.set(*key, std::move(*value));
  }
  return child ? Result<Value>(std::move(entries)) : child.error();
}

/// Elements whose value is made of their text without white space around it.
struct Scalar {
  std::string_view name;
  std::optional<Value> (*parse)(std::string_view text) noexcept;
  const char* reason;
};
constexpr Scalar kScalars[] = {{"integer", parsedInteger, "not an integer of 64 bits"},
                               {"real", parsedReal, "not a real number"},
                               {"date", parsedDate, "not a date such as 2001-01-01T00:00:00Z"},
                               {"data", parsedData, "not Base64"}};

Result<Value> readElement(const pugi::xml_node& element, int level) noexcept {
  const std::string_view name = element.name();
  if (name == "dict" || name == "array") {
    if (level > core::kPropertyListDepth) {
      return errorAt("too deeply nested", element);
    }
    return name == "dict" ? readDictionary(element, level) : readArray(element, level);
  }
  const Result<core::String> text = textOf(element);
  if (!text) {
    return text.error();
  }
  if (name == "string") {
    return Value(*text);
  }
  if ((name == "true" || name == "false") && core::trimmed(*text).empty()) {
    return Value(name == "true");
  }
  for (const Scalar& scalar : kScalars) {
    if (scalar.name == name) {
      std::optional<Value> value = scalar.parse(core::trimmed(*text));
      return value ? Result<Value>(std::move(*value)) : errorAt(scalar.reason, element);
    }
  }
  return errorAt("an element of unknown kind", element);
}

Result<Value> readXml(std::span<const std::uint8_t> bytes) noexcept {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  // The parser takes a NUL for the end.
  if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
    return ParseError{"a NUL byte", nul};
  }
  pugi::xml_document document;
  const pugi::xml_parse_result parsing = document.load_buffer(
      text.data(), text.size(), pugi::parse_cdata | pugi::parse_ws_pcdata | pugi::parse_eol, pugi::encoding_utf8);
  if (!parsing) {
    return ParseError{parsing.description(), static_cast<std::size_t>(parsing.offset)};
  }
  const pugi::xml_node root = document.first_child();
  if (root.name() != std::string_view("plist") || root.next_sibling()) {
    return errorAt("not one plist element", root);
  }
  const Result<pugi::xml_node> element = elementFrom(root.first_child());
  if (!element) {
    return element.error();
  }
  if (!*element) {
    return errorAt("no value", root);
  }
  const Result<pugi::xml_node> second = elementFrom(element->next_sibling());
  if (!second || *second) {
    return second ? errorAt("more than one value", *second) : second.error();
  }
  return readElement(*element, 1);
}

}  // namespace

Result<Value> readPropertyList(std::span<const std::uint8_t> bytes) noexcept {
  constexpr std::string_view kBinary = "bplist";
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return text.starts_with(kBinary) ? core::decodeBinaryPropertyList(bytes) : readXml(bytes);
}

Result<Value> readPropertyListFile(const core::String& path, std::size_t limit) noexcept {
  const Result<core::Data, int> content = core::readFile(path, limit);
  if (!content) {
    return content.error() == EFBIG ? ParseError{"is too large", limit} : ParseError{"cannot be read", 0};
  }
  return readPropertyList(content->span());
}

}  // namespace platform

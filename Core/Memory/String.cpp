#include "Core/Memory/String.h"

#include <algorithm>

namespace core {
namespace {

constexpr bool isContinuation(char byte) noexcept {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// Bytes of the character that begins `text`, which is not empty. A byte that begins no
/// valid sequence stands for itself.
std::size_t characterSize(std::string_view text) noexcept {
  const auto lead = static_cast<unsigned char>(text.front());
  std::size_t size = 1;
  if (lead >= 0xC2 && lead < 0xE0) {
    size = 2;
  } else if (lead >= 0xE0 && lead < 0xF0) {
    size = 3;
  } else if (lead >= 0xF0 && lead < 0xF5) {
    size = 4;
  }
  if (size > text.size()) {
    return 1;
  }
  for (std::size_t i = 1; i < size; ++i) {
    if (!isContinuation(text[i])) {
      return 1;
    }
  }
  return size;
}

constexpr bool isWhite(char byte) noexcept {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

}  // namespace

std::size_t countCharacters(std::string_view text) noexcept {
  std::size_t count = 0;
  while (!text.empty()) {
    text.remove_prefix(characterSize(text));
    ++count;
  }
  return count;
}

std::size_t String::characters() const noexcept {
  return countCharacters(view());
}

std::string_view firstCharacters(std::string_view text, std::size_t count) noexcept {
  std::string_view rest = text;
  while (count != 0 && !rest.empty()) {
    rest.remove_prefix(characterSize(rest));
    --count;
  }
  return text.substr(0, text.size() - rest.size());
}

std::string_view lastCharacters(std::string_view text, std::size_t count) noexcept {
  const std::size_t all = countCharacters(text);
  return all <= count ? text : text.substr(firstCharacters(text, all - count).size());
}

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isWhite(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isWhite(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

String uppercased(std::string_view asciiText) noexcept {
  return String(Bytes::filled(asciiText.size(), [&](char* out) {
    for (const char byte : asciiText) {
      *out++ = byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
    }
  }));
}

String replacedAll(std::string_view text, std::string_view what, std::string_view with) noexcept {
  StringBuilder out(text.size());
  for (std::size_t at; !what.empty() && (at = text.find(what)) != std::string_view::npos;) {
    out.append(text.substr(0, at));
    out.append(with);
    text.remove_prefix(at + what.size());
  }
  out.append(text);
  return out.str();
}

void StringBuilder::reserve(std::size_t wanted) noexcept {
  if (wanted <= capacity_) {
    return;
  }
  const std::size_t capacity = std::max({wanted, capacity_ * 2, std::size_t{64}});
  auto* grown = static_cast<char*>(core::allocate(capacity));
  if (size_ != 0) {
    std::memcpy(grown, data_, size_);
  }
  core::deallocate(data_);
  data_ = grown;
  capacity_ = capacity;
}

}  // namespace core

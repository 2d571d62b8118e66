#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Core/Memory/String.h"

namespace core {

/// What an argument is to kiv_format, decided from its type when a format is compiled.
enum class FormatKind : std::uint8_t {
  kMissing,  ///< no object: "(null)", or 0 where a number is wanted
  kInteger,
  kCharacter,
  kReal,
  kText,
  kObject,  ///< shown by its description(), item by item, or entry by entry
  kPointer,
  kUnsupported
};

namespace format_detail {

template <class T>
constexpr bool kIsInteger = sizeof(T) <= 8 && std::is_convertible_v<T, long long> &&
                            (std::is_integral_v<T> || std::is_enum_v<T>);

template <class T>
constexpr bool kIsText = std::is_convertible_v<const T&, std::string_view> && !std::is_null_pointer_v<T>;

template <class T>
concept Described = requires(const T& value) {
  String(value.description());
};

template <class T>
concept Items = requires(const T& value) {
  value.begin();
  value.end();
};

/// An item of a dictionary.
template <class T>
concept Entry = requires(const T& entry) {
  entry.key;
  entry.value;
};

/// std::optional, smart pointers, pointers.
template <class T>
concept Holder = requires(const T& value) {
  *value;
  static_cast<bool>(value);
};

template <class T>
constexpr FormatKind kindOf() noexcept {
  if constexpr (std::is_null_pointer_v<T>) {
    return FormatKind::kMissing;
  } else if constexpr (std::is_same_v<T, char>) {
    return FormatKind::kCharacter;
  } else if constexpr (kIsInteger<T>) {
    return FormatKind::kInteger;
  } else if constexpr (std::is_floating_point_v<T>) {
    return FormatKind::kReal;
  } else if constexpr (kIsText<T>) {
    return FormatKind::kText;
  } else if constexpr (Described<T> || Items<T>) {
    return FormatKind::kObject;
  } else if constexpr (std::is_function_v<T> || (std::is_pointer_v<T> && !std::is_class_v<std::remove_pointer_t<T>>)) {
    return FormatKind::kPointer;
  } else if constexpr (Holder<T>) {
    constexpr FormatKind kHeld = kindOf<std::remove_cvref_t<decltype(*std::declval<const T&>())>>();
    return std::is_pointer_v<T> && kHeld == FormatKind::kUnsupported ? FormatKind::kPointer : kHeld;
  } else {
    return FormatKind::kUnsupported;
  }
}

}  // namespace format_detail
}  // namespace core

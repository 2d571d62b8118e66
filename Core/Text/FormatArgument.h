#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "Core/Memory/String.h"
#include "Core/Text/FormatKind.h"

namespace core {

/// One argument of kiv_format with its type erased. Refers to the value that it was made
/// from, which must outlive it.
class FormatArgument {
 public:
  FormatArgument() noexcept : kind_(FormatKind::kMissing), size_(0), integer_(0), length_(0) {}

  template <class T>
  explicit FormatArgument(const T& value) noexcept : FormatArgument() {
    constexpr FormatKind kKind = format_detail::kindOf<T>();
    static_assert(kKind != FormatKind::kUnsupported, "kiv_format does not know how to show this type");
    if constexpr (format_detail::kIsInteger<T>) {
      setInteger(kKind, +value);
    } else if constexpr (std::is_floating_point_v<T>) {
      kind_ = kKind;
      size_ = std::is_same_v<T, float> ? sizeof(float) : sizeof(double);
      real_ = static_cast<double>(value);
    } else if constexpr (format_detail::kIsText<T>) {
      setText(value);
    } else if constexpr (format_detail::Described<T>) {
      setObject(&value,
                [](const void* object) noexcept { return String(static_cast<const T*>(object)->description()); });
    } else if constexpr (format_detail::Items<T>) {
      setObject(&value, [](const void* object) noexcept { return describeItems(*static_cast<const T*>(object)); });
    } else if constexpr (kKind == FormatKind::kPointer) {
      kind_ = kKind;
      integer_ = reinterpret_cast<std::uintptr_t>(value);
    } else if constexpr (format_detail::Holder<T>) {
      if (static_cast<bool>(value)) {
        *this = FormatArgument(*value);
      }
    }
  }

  FormatKind kind() const noexcept { return kind_; }
  /// Bytes of the value's own type, narrow integers promoted to int as in C.
  unsigned size() const noexcept { return size_; }
  std::uint64_t integer() const noexcept { return integer_; }
  bool isSigned() const noexcept { return length_ != 0; }
  double real() const noexcept { return real_; }
  std::string_view text() const noexcept { return {text_, length_}; }
  String description() const noexcept { return describe_(object_); }

 private:
  template <class Promoted>
  void setInteger(FormatKind kind, Promoted value) noexcept {
    kind_ = kind;
    size_ = sizeof(Promoted);
    integer_ = static_cast<std::uint64_t>(value);
    length_ = std::is_signed_v<Promoted> ? 1 : 0;
  }
  template <class T>
  void setText(const T& value) noexcept {
    if constexpr (std::is_pointer_v<T>) {
      if (value == nullptr) {
        return;
      }
    }
    if constexpr (std::is_array_v<T>) {
      text_ = value;
      length_ = strnlen(value, sizeof(T));
    } else {
      const std::string_view view = value;
      text_ = view.data();
      length_ = view.size();
    }
    kind_ = FormatKind::kText;
  }
  void setObject(const void* object, String (*describe)(const void*) noexcept) noexcept {
    kind_ = FormatKind::kObject;
    object_ = object;
    describe_ = describe;
  }

  template <class T>
  static String describeItems(const T& items) noexcept {
    constexpr bool kEntries = format_detail::Entry<decltype(*items.begin())>;
    StringBuilder out;
    out.append(kEntries ? "{" : "(");
    std::string_view before = "\n    ";
    for (const auto& item : items) {
      out.append(before);
      if constexpr (kEntries) {
        appendItem(out, FormatArgument(item.key));
        out.append(" = ");
        appendItem(out, FormatArgument(item.value));
        out.append(';');
      } else {
        appendItem(out, FormatArgument(item));
        before = ",\n    ";
      }
    }
    out.append(kEntries ? "\n}" : "\n)");
    return out.str();
  }
  static void appendItem(StringBuilder& out, const FormatArgument& item) noexcept;

  FormatKind kind_;
  std::uint8_t size_;
  union {
    std::uint64_t integer_;
    double real_;
    const char* text_;
    const void* object_;
  };
  union {
    std::size_t length_;
    String (*describe_)(const void*) noexcept;
  };
};

}  // namespace core

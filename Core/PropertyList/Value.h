#pragma once

#include <cstdint>
#include <optional>
#include <variant>

#include "Core/Memory/Array.h"
#include "Core/Memory/Bytes.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/Shared.h"
#include "Core/Memory/String.h"

namespace core {

class Value;
using ValueArray = Array<Value>;
using ValueDictionary = Dictionary<Value>;

/// A moment, as property lists keep it: seconds since 2001-01-01 00:00:00 UTC.
struct Date {
  static constexpr double kSecondsFrom1970 = 978307200.0;
  double secondsSince2001;
  friend bool operator==(const Date&, const Date&) = default;
};

/// A reference by number into a keyed archive's object table.
struct Uid {
  std::uint32_t index;
  friend bool operator==(const Uid&, const Uid&) = default;
};

/// A property-list value. Immutable; copies share arrays and dictionaries.
///
/// The typed readers answer nothing (or nullptr) for a value of another type.
class Value {
 public:
  Value() noexcept = default;  // null
  Value(bool value) noexcept : content_(value) {}
  Value(int value) noexcept : content_(std::int64_t{value}) {}
  Value(std::int64_t value) noexcept : content_(value) {}
  Value(long long value) noexcept : content_(static_cast<std::int64_t>(value)) {}
  /// Kept as a signed integer wherever it fits.
  Value(std::uint64_t value) noexcept;
  Value(double value) noexcept : content_(value) {}
  Value(const char* text) noexcept : content_(String(text)) {}
  Value(String text) noexcept : content_(std::move(text)) {}
  Value(Data data) noexcept : content_(std::move(data)) {}
  Value(Date date) noexcept : content_(date) {}
  Value(Uid uid) noexcept : content_(uid) {}
  Value(ValueArray items) noexcept;
  Value(ValueDictionary entries) noexcept;

  bool isNull() const noexcept { return content_.index() == 0; }
  const bool* boolean() const noexcept { return std::get_if<bool>(&content_); }
  const std::int64_t* integer() const noexcept { return std::get_if<std::int64_t>(&content_); }
  /// Only for values above the signed range.
  const std::uint64_t* largeInteger() const noexcept { return std::get_if<std::uint64_t>(&content_); }
  const double* real() const noexcept { return std::get_if<double>(&content_); }
  const String* string() const noexcept { return std::get_if<String>(&content_); }
  const Data* data() const noexcept { return std::get_if<Data>(&content_); }
  const Date* date() const noexcept { return std::get_if<Date>(&content_); }
  const Uid* uid() const noexcept { return std::get_if<Uid>(&content_); }
  const ValueArray* array() const noexcept;
  const ValueDictionary* dictionary() const noexcept;

  /// A number of any type as an integer, reals cut towards zero and clamped to the range;
  /// booleans count as 0 and 1.
  std::optional<std::int64_t> asInteger() const noexcept;
  /// A boolean, or a number as "not 0", or the texts "YES", "true", "1" ("NO", "false", "0").
  std::optional<bool> asBoolean() const noexcept;
  /// How %@ shows the value: texts as they are, numbers in decimal, booleans as 1 and 0, null
  /// as "(null)", dates in UTC, data in hexadecimal, arrays in parentheses, dictionaries in braces.
  String description() const noexcept;

  friend bool operator==(const Value& a, const Value& b) noexcept;

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, String, Data, Date, Uid, Shared<ValueArray>,
               Shared<ValueDictionary>>
      content_;
};

}  // namespace core

#include "Core/PropertyList/Value.h"

#include <cmath>
#include <limits>
#include <utility>

#include "Core/Text/Format.h"
#include "Core/Text/LocalTime.h"
#include "Core/Text/Uuid.h"

namespace core {
namespace {

/// Cut towards zero and clamped; 0 for what is no number.
std::int64_t truncated(double value) noexcept {
  using Limits = std::numeric_limits<std::int64_t>;
  if (value >= 0x1p63) {
    return Limits::max();
  }
  if (value < -0x1p63) {
    return Limits::min();
  }
  return std::isnan(value) ? 0 : static_cast<std::int64_t>(value);
}

void appendDate(StringBuilder& out, const Date& date) noexcept {
  const double exact = date.secondsSince2001 + Date::kSecondsFrom1970;
  const std::int64_t cut = truncated(exact);
  const CivilTime time = civilTime(static_cast<double>(cut) > exact ? cut - 1 : cut, 0);
  kiv_append(out, "%04d-%02d-%02d %02d:%02d:%02d +0000", time.year, time.month, time.day, time.hour, time.minute,
             time.second);
}

void appendScalar(StringBuilder& out, const Value& value) noexcept {
  if (const String* text = value.string()) {
    out.append(text->view());
  } else if (const bool* boolean = value.boolean()) {
    out.append(*boolean ? '1' : '0');
  } else if (const std::int64_t* integer = value.integer()) {
    kiv_append(out, "%lld", *integer);
  } else if (const std::uint64_t* large = value.largeInteger()) {
    kiv_append(out, "%llu", *large);
  } else if (const double* real = value.real()) {
    kiv_append(out, "%@", *real);
  } else if (const Date* date = value.date()) {
    appendDate(out, *date);
  } else if (const Data* data = value.data()) {
    kiv_append(out, "<%@>", lowerHex(data->span()));
  } else if (const Uid* uid = value.uid()) {
    kiv_append(out, "%u", uid->index);
  } else {
    out.append("(null)");
  }
}

void startLine(StringBuilder& out, std::size_t level) noexcept {
  out.append('\n');
  out.append(level * 4, ' ');
}

void appendValue(StringBuilder& out, const Value& value, std::size_t level) noexcept {
  if (const ValueArray* items = value.array()) {
    out.append('(');
    for (const Value& item : *items) {
      if (&item != items->begin()) {
        out.append(',');
      }
      startLine(out, level + 1);
      appendValue(out, item, level + 1);
    }
    startLine(out, level);
    out.append(')');
  } else if (const ValueDictionary* entries = value.dictionary()) {
    out.append('{');
    for (const auto& [key, entry] : *entries) {
      startLine(out, level + 1);
      out.append(key.view());
      out.append(" = ");
      appendValue(out, entry, level + 1);
      out.append(';');
    }
    startLine(out, level);
    out.append('}');
  } else {
    appendScalar(out, value);
  }
}

}  // namespace

Value::Value(std::uint64_t value) noexcept {
  if (std::in_range<std::int64_t>(value)) {
    content_ = static_cast<std::int64_t>(value);
  } else {
    content_ = value;
  }
}

Value::Value(ValueArray items) noexcept : content_(Shared<ValueArray>(std::move(items))) {}

Value::Value(ValueDictionary entries) noexcept : content_(Shared<ValueDictionary>(std::move(entries))) {}

const ValueArray* Value::array() const noexcept {
  const auto* shared = std::get_if<Shared<ValueArray>>(&content_);
  return shared != nullptr ? &**shared : nullptr;
}

const ValueDictionary* Value::dictionary() const noexcept {
  const auto* shared = std::get_if<Shared<ValueDictionary>>(&content_);
  return shared != nullptr ? &**shared : nullptr;
}

std::optional<std::int64_t> Value::asInteger() const noexcept {
  if (const bool* held = boolean()) {
    return *held ? 1 : 0;
  }
  if (const std::int64_t* held = integer()) {
    return *held;
  }
  if (largeInteger() != nullptr) {
    return std::numeric_limits<std::int64_t>::max();
  }
  if (const double* held = real(); held != nullptr && !std::isnan(*held)) {
    return truncated(*held);
  }
  return std::nullopt;
}

std::optional<bool> Value::asBoolean() const noexcept {
  if (const double* held = real()) {
    return *held != 0;
  }
  if (const std::optional<std::int64_t> number = asInteger()) {
    return *number != 0;
  }
  if (const String* text = string()) {
    if (*text == "YES" || *text == "true" || *text == "1") {
      return true;
    }
    if (*text == "NO" || *text == "false" || *text == "0") {
      return false;
    }
  }
  return std::nullopt;
}

String Value::description() const noexcept {
  StringBuilder out;
  appendValue(out, *this, 0);
  return out.str();
}

bool operator==(const Value& a, const Value& b) noexcept {
  if (a.content_.index() != b.content_.index()) {
    return false;
  }
  const auto same = [](const auto* left, const auto* right) noexcept { return *left == *right; };
  switch (a.content_.index()) {
    case 0:
      return true;
    case 1:
      return same(a.boolean(), b.boolean());
    case 2:
      return same(a.integer(), b.integer());
    case 3:
      return same(a.largeInteger(), b.largeInteger());
    case 4:
      return same(a.real(), b.real());
    case 5:
      return same(a.string(), b.string());
    case 6:
      return same(a.data(), b.data());
    case 7:
      return same(a.date(), b.date());
    case 8:
      return same(a.uid(), b.uid());
    case 9:
      return same(a.array(), b.array());
    default:
      return same(a.dictionary(), b.dictionary());
  }
}

}  // namespace core

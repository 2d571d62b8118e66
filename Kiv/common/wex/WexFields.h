#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace analyticsyut {

/// One row of a record's list of fields. A reader throws where a required one is missing.
template <std::uint8_t tag, bool isRequired, class Record, class Value>
struct WexField {
  static constexpr std::uint8_t kTag = tag;
  static constexpr bool kIsRequired = isRequired;
  std::string_view name;
  Value Record::*member;
};

template <class T>
concept WexRecord = requires {
  std::remove_cvref_t<T>::kFields;
};

/// Readers only go forward.
template <class... Rows>
constexpr bool tagsAscend(const std::tuple<Rows...>&) noexcept {
  int last = -1;
  return ((last < Rows::kTag && (last = Rows::kTag, true)) && ...);
}

/// Calls `visit(row)` for each row of a record's list.
template <WexRecord Record, class Visit>
constexpr void visitFields(Visit&& visit) {
  static_assert(tagsAscend(Record::kFields), "the fields of a record stand in the order of their tags");
  std::apply([&](const auto&... row) { (visit(row), ...); }, Record::kFields);
}

/// Calls `visit(name, tag, value)` for each field of a record: what dumps are made from.
template <WexRecord Record, class Visit>
constexpr void forEachField(Record& record, Visit&& visit) {
  visitFields<std::remove_const_t<Record>>([&](const auto& row) { visit(row.name, row.kTag, record.*row.member); });
}

}  // namespace analyticsyut

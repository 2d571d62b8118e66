#pragma once

#include "Kiv/common/wex/WexFields.h"
#include "Kiv/common/wex/WexInputStream.h"
#include "Kiv/common/wex/WexOutputStream.h"

namespace analyticsyut {

/// Base of every record: a plain structure that lists its fields once, in the order of their tags.
///
///     struct Attachment : analyticsyut::WexStructBase<Attachment> {
///       static constexpr std::string_view kTypeName = "kiv.Attachment";
///       std::int8_t type = 0;
///       core::String fileName;
///       static constexpr std::tuple kFields{
///           optional<0>("type", &Attachment::type),
///           optional<1>("fileName", &Attachment::fileName),
///       };
///     };
///
/// Members are std::int8_t, 16, 32, 64, bool, core::String, core::Data, core::Array and
/// core::SortedMap of these, and records. All else is derived from the list.
template <class Record>
struct WexStructBase {
  /// Writes the fields, without a frame around them.
  void writeTo(WexOutputStream& stream) const { stream.writeFields(self()); }
  /// Reads the fields that are there; throws WexDecodeException. What is not there keeps its value.
  void readFrom(WexInputStream& stream) {
    visitFields<Record>([&](const auto& row) { stream.read(self().*row.member, row.kTag, row.kIsRequired); });
  }
  /// Puts every field back to its default.
  void resetDefautlt() { self() = Record(); }

  friend bool operator==(const Record& a, const Record& b) {
    bool equal = true;
    visitFields<Record>([&](const auto& row) { equal = equal && a.*row.member == b.*row.member; });
    return equal;
  }

 protected:
  template <std::uint8_t tag, class Value>
  static consteval WexField<tag, true, Record, Value> required(std::string_view name, Value Record::*member) {
    return {name, member};
  }
  template <std::uint8_t tag, class Value>
  static consteval WexField<tag, false, Record, Value> optional(std::string_view name, Value Record::*member) {
    return {name, member};
  }

 private:
  Record& self() noexcept { return static_cast<Record&>(*this); }
  const Record& self() const noexcept { return static_cast<const Record&>(*this); }
};

}  // namespace analyticsyut

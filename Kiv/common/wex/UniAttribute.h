#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace analyticszem {

/// Records by the name of an attribute and the name of the record's type, encoded: what an
/// envelope carries. Reader and writer agree on the attribute's name; a type name that is
/// marked with "?" fits any wanted type.
class UniAttribute {
 public:
  using TypedBytes = core::SortedMap<core::Data>;

  /// Keeps `record` under `name`, beside records of other types that are there.
  template <analyticsyut::WexRecord Record>
  void put(std::string_view name, const Record& record) {
    writer_.clear();
    writer_.write(record, 0);
    data_[name][Record::kTypeName] = writer_.data();
  }

  /// The record under `name`. Throws std::runtime_error when there is none of its type and
  /// WexDecodeException when its bytes are broken.
  template <analyticsyut::WexRecord Record>
  Record get(std::string_view name) const {
    Record record;
    analyticsyut::WexInputStream stream(bytesOf(name, Record::kTypeName).span());
    stream.read(record, 0, true);
    return record;
  }

  const core::SortedMap<TypedBytes>& attributes() const noexcept { return data_; }

 protected:
  core::SortedMap<TypedBytes> data_;

 private:
  const core::Data& bytesOf(std::string_view name, std::string_view type) const;

  analyticsyut::WexOutputStream writer_;
};

}  // namespace analyticszem

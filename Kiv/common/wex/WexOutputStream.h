#pragma once

#include "Kiv/common/wex/BufferWriter.h"
#include "Kiv/common/wex/WexEncoding.h"

namespace analyticsyut {

/// Writes values as tagged fields, one after the other; span() and data() hand the bytes out.
///
///     WexOutputStream out;
///     out.write(record, 0);
///
/// Takes signed integers, bool, texts, core::Data, core::Array and core::SortedMap of these, and
/// records; each in the least bytes that hold it. Only a text beyond 100 MiB throws
/// (WexDecodeException), and then nothing of the value is written.
class WexOutputStream : public BufferWriter {
 public:
  template <class Value>
  void write(const Value& value, std::uint8_t tag) {
    std::uint8_t* at = room(WexEncoding::bound(value, tag));
    commit(WexEncoding::put(at, value, tag));
  }

  /// The record's fields alone, without a frame.
  template <WexRecord Record>
  void writeFields(const Record& record) {
    std::uint8_t* at = room(WexEncoding::fieldsBound(record));
    commit(WexEncoding::putFields(at, record));
  }
};

}  // namespace analyticsyut

#include "Tools/kiv/RecordDocument.h"

#include <map>

#include "Kiv/common/model/zem/ExceptionUpload.h"
#include "Kiv/common/model/zem/KivStrategy.h"
#include "Kiv/common/model/zem/RequestPkg.h"
#include "Kiv/common/model/zem/ResponsePkg.h"
#include "Kiv/common/model/zem/UserInfoPackage.h"
#include "Kiv/common/wex/RequestPacket.h"
#include "Kiv/common/wex/WexException.h"
#include "Tools/kiv/FieldDocument.h"

namespace {

using analyticsyut::DataHead;
using analyticsyut::WexInputStream;

template <std::integral T>
Document documentOf(T number) {
  return number;
}
Document documentOf(std::int8_t number) {
  return static_cast<int>(number);
}
Document documentOf(const core::String& text) {
  return documentOfBytes({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}
Document documentOf(const core::Data& data) {
  return documentOfBytes(data.span());
}
template <class T>
Document documentOf(const core::Array<T>& items);
template <class V>
Document documentOf(const core::SortedMap<V>& entries);
template <analyticsyut::WexRecord Record>
Document documentOf(const Record& record);

template <class T>
Document documentOf(const core::Array<T>& items) {
  Document list = Document::array();
  for (const T& item : items) {
    list.push_back(documentOf(item));
  }
  return list;
}

template <class V>
Document documentOf(const core::SortedMap<V>& entries) {
  Document map = Document::object();
  for (const auto& [key, value] : entries) {
    map[key.str()] = documentOf(value);
  }
  return map;
}

template <analyticsyut::WexRecord Record>
Document documentOf(const Record& record) {
  Document fields = Document::object();
  analyticsyut::forEachField(
      record, [&](std::string_view name, int, const auto& value) { fields[std::string(name)] = documentOf(value); });
  return fields;
}

template <class Value>
Document readField(WexInputStream& stream) {
  Value value;
  stream.read(value, 0, true);
  return documentOf(value);
}

template <analyticsyut::WexRecord Record>
Document readBare(WexInputStream& stream) {
  Record record;
  record.readFrom(stream);
  return documentOf(record);
}

template <analyticsyut::WexRecord Record>
Document readRecord(ByteView bytes) {
  WexInputStream stream(bytes);
  switch (bytes.empty() ? 0xFF : bytes.front()) {
    case DataHead::kStructBegin:
      return readField<Record>(stream);
    case DataHead::kList:
      return readField<core::Array<Record>>(stream);
    default:
      return readBare<Record>(stream);
  }
}

using Reader = Document (*)(ByteView);

template <analyticsyut::WexRecord... Records>
std::map<std::string, Reader> readers() {
  return {{std::string(Records::kTypeName), readRecord<Records>}...};
}

const std::map<std::string, Reader>& allReaders() {
  static const auto kReaders = readers<kiv::RequestPkg, kiv::ResponsePkg, kiv::ExceptionUpload, kiv::UserInfoPackage,
                                       kiv::SummaryInfo, kiv::AppInfo, kiv::AppSession, kiv::Attachment,
                                       kiv::KivStrategy, kiv::KivSecurity, analyticsyut::RequestPacket>();
  return kReaders;
}

}  // namespace

std::vector<std::string> recordTypes() {
  std::vector<std::string> types;
  for (const auto& [type, reader] : allReaders()) {
    types.push_back(type);
  }
  return types;
}

Document documentOfRecord(const std::string& type, ByteView bytes) {
  const Reader reader = allReaders().at(type);
  try {
    return reader(bytes);
  } catch (const analyticsyut::WexException& fault) {
    documentOfFields(bytes);  // tells where, if the bytes themselves are broken
    throw BrokenDocument(bytes.size(), type + ": " + fault.what());
  }
}

#include "Tools/kiv/ValueDocument.h"

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/PropertyList/KeyedArchiveReader.h"

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

Document documentOfData(const core::Data& data) {
  if (textOf(data.span()).starts_with(kBinaryMagic)) {
    const auto inner = core::decodeBinaryPropertyList(data.span());
    if (inner && isKeyedArchive(*inner)) {
      return documentOfArchive(data.span());
    }
  }
  return documentOfBytes(data.span());
}

}  // namespace

bool isKeyedArchive(const core::Value& value) {
  const core::ValueDictionary* entries = value.dictionary();
  return entries != nullptr && entries->contains("$archiver") && entries->contains("$objects");
}

Document documentOfArchive(ByteView bytes) {
  const auto content = core::archive::readKeyedArchive(bytes);
  if (!content) {
    throw BrokenDocument(bytes.size(), content.error().reason);
  }
  return documentOfValue(*content);
}

Document documentOfValue(const core::Value& value) {
  if (const auto* entries = value.dictionary()) {
    Document map = Document::object();
    for (const auto& [key, entry] : *entries) {
      map[key.str()] = documentOfValue(entry);
    }
    return map;
  }
  if (const auto* items = value.array()) {
    Document list = Document::array();
    for (const core::Value& item : *items) {
      list.push_back(documentOfValue(item));
    }
    return list;
  }
  if (const auto* text = value.string()) {
    return documentOfBytes({reinterpret_cast<const std::uint8_t*>(text->data()), text->size()});
  }
  if (const auto* data = value.data()) {
    return documentOfData(*data);
  }
  if (const auto* flag = value.boolean()) {
    return *flag;
  }
  if (const auto* number = value.integer()) {
    return *number;
  }
  if (const auto* number = value.largeInteger()) {
    return *number;
  }
  if (const auto* number = value.real()) {
    return *number;
  }
  return value.isNull() ? Document() : Document(value.description().str());
}

#include "Tools/kiv/FileDocument.h"

#include <algorithm>

#include "Kiv/common/wex/DataHead.h"
#include "Platform/Foundation/PropertyListReader.h"
#include "Tools/kiv/EnvelopeDocument.h"
#include "Tools/kiv/FieldDocument.h"
#include "Tools/kiv/RecordDocument.h"
#include "Tools/kiv/ValueDocument.h"

namespace {

constexpr std::string_view kClass = "$class";

bool isPropertyList(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n\xEF\xBB\xBF");
  return text.starts_with("bplist") || (first != std::string_view::npos && text[first] == '<');
}

std::string classOf(const Document& archive) {
  return archive.is_object() && archive.contains(kClass) && archive[kClass].is_string()
             ? archive[kClass].get<std::string>()
             : "";
}

std::string kindOfArchive(const Document& archive) {
  const std::string name = classOf(archive);
  if (name == "KivExpObj") {
    return archive.value("crashType", "") == "103" ? "stored stall" : "stored crash";
  }
  if (name == "KivLocalStrategy") {
    return "stored strategy";
  }
  return name.empty() ? "keyed archive" : "keyed archive of " + name;
}

bool holdsOnly(const Document& container, const std::string& className) {
  return !container.empty() && std::all_of(container.begin(), container.end(),
                                           [&](const Document& item) { return classOf(item) == className; });
}

std::string kindOfList(const Document& list) {
  if (list.is_object() && holdsOnly(list, "KivCrashMetaData")) {
    return "crash index";
  }
  if (list.is_array() && holdsOnly(list, "KivSummaryInfo")) {
    return "queued summaries";
  }
  const bool isModel = list.is_object() && (list.contains("ana_appid_key") || list.contains("ana_ver_hash") ||
                                            list.contains("kiv.openuuid") || list.contains("ana_vorin"));
  return isModel ? "model file" : "property list";
}

FileDocument readPropertyListDocument(ByteView bytes) {
  const auto value = platform::readPropertyList(bytes);
  if (!value) {
    throw BrokenDocument(value.error().offset, value.error().reason);
  }
  if (isKeyedArchive(*value)) {
    Document archive = documentOfArchive(bytes);
    return {kindOfArchive(archive), std::move(archive)};
  }
  Document list = documentOfValue(*value);
  return {kindOfList(list), std::move(list)};
}

/// A framed record, a list of records, or bare fields of a kind that nobody named.
FileDocument readUnnamedRecord(ByteView bytes) {
  if (!bytes.empty() && bytes.front() == analyticsyut::DataHead::kList) {
    try {
      return {"list of kiv.ExceptionUpload", documentOfRecord("kiv.ExceptionUpload", bytes)};
    } catch (const BrokenDocument&) {  // a list of something else
    }
  }
  return {"record of an unknown type (name it with --type)", documentOfFields(bytes)};
}

}  // namespace

FileDocument readFileDocument(ByteView bytes) {
  if (bytes.empty()) {
    throw BrokenDocument(0, "the file is empty");
  }
  if (isPropertyList(textOf(bytes))) {
    return readPropertyListDocument(bytes);
  }
  if (looksLikeEnvelope(bytes)) {
    return {"envelope", documentOfEnvelope(bytes)};
  }
  return readUnnamedRecord(bytes);
}

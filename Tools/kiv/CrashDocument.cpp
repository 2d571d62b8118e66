#include "Tools/kiv/CrashDocument.h"

#include "Tools/kiv/Terminal.h"
#include "Tools/kiv/ValueDocument.h"

Document documentOf(const std::string& directory, const StoredCrash& crash) {
  Document document = {{"directory", directory}, {"file", crash.file}, {"id", crash.id()}, {"uid", crash.uid}};
  document["damage"] = crash.isDamaged() ? Document(crash.damage) : Document();
  document["kind"] = crash.kind;
  document["crashType"] = crash.crashType;
  document["type"] = crash.type;
  document["time"] = crash.time;
  document["lastTime"] = crash.lastTime;
  document["seen"] = crash.seen;
  document["frame"] = crash.frame;
  document["user"] = crash.user;
  document["indexed"] = crash.isIndexed;
  document["uploaded"] = crash.isUploaded;
  return document;
}

Document documentOf(const std::string& directory, const StoredCrash& crash, const StoredRecord& record) {
  Document document = documentOf(directory, crash);
  try {
    document["record"] = documentOfArchive(record.bytes.span());
  } catch (const BrokenDocument&) {  // damaged where the fields that are known do not reach
    document["record"] = nullptr;
  }
  const auto log = logOf(record.content);
  document["log"] = log ? Document(*log) : Document();
  return document;
}

std::string jsonOf(const Document& document) {
  return harmless(document.dump(2, ' ', false, Document::error_handler_t::replace), Place::kJson) + "\n";
}

#include "Tools/kiv/CrashIndex.h"

#include <cerrno>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Kiv/crashhandler/persist/KivCrashMetaData.h"
#include "Platform/Foundation/PropertyListReader.h"
#include "Tools/kiv/StoredRecord.h"

namespace {

void readEntry(CrashIndex& index, const std::string& hash, const core::Value& value) {
  if (value.data() == nullptr) {
    index.faults.push_back({hash, "has a damaged entry: it is no archive"});
    return;
  }
  const auto entry = core::archive::unarchived<KivCrashMetaData>(value.data()->span());
  if (!entry) {
    index.faults.push_back({hash, std::string("has a damaged entry: ") + entry.error().reason});
  } else if (!entry->file || entry->file->empty()) {
    index.faults.push_back({hash, "has an entry that names no file"});
  } else if (entry->file->view().find('/') != std::string_view::npos) {
    index.faults.push_back({hash, "names a file of another directory: " + entry->file->str()});
  } else {
    index.entries.push_back({hash, entry->file->str(), entry->time, entry->uplaoded});
  }
}

}  // namespace

CrashIndex CrashIndex::read(const std::string& directory) {
  CrashIndex index;
  const auto bytes = core::readFile(core::joinPath(directory, kCrashIndexFile));
  if (!bytes) {
    if (bytes.error() != ENOENT) {
      index.faults.push_back({"", cannotBeRead(bytes.error())});
    }
    return index;
  }
  const auto list = platform::readPropertyList(bytes->span());
  if (!list) {
    index.faults.push_back({"", std::string("is damaged: ") + list.error().reason});
  } else if (list->dictionary() == nullptr) {
    index.faults.push_back({"", "is damaged: it is no dictionary"});
  } else {
    for (const auto& [hash, entry] : *list->dictionary()) {
      readEntry(index, hash.str(), entry);
    }
  }
  return index;
}

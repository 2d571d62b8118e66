#include "Kiv/crashhandler/persist/SummaryQueue.h"

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Platform/Foundation/PropertyListReader.h"

namespace {

/// Alike but for the length of the archive that was last made of one of them.
bool isSame(const KivSummaryInfo& a, KivSummaryInfo b) noexcept {
  b.encLen = a.encLen;
  return a == b;
}

}  // namespace

core::String SummaryQueue::pathIn(const core::String& folder) noexcept {
  return core::joinPath(folder, ".user_info.data");
}

void SummaryQueue::load(const core::String& path) noexcept {
  const auto list = platform::readPropertyListFile(path);
  const core::ValueArray* items = list ? list->array() : nullptr;
  for (std::size_t i = 0; items != nullptr && i < items->size(); ++i) {
    const core::Data* archive = (*items)[i].data();
    summaries_.emplace().setEncodeData(archive != nullptr ? archive->span() : std::span<const std::uint8_t>());
  }
}

void SummaryQueue::remove(const Summaries& sent) noexcept {
  Summaries left;
  for (const KivSummaryInfo& summary : summaries_) {
    bool isSent = false;
    for (const KivSummaryInfo& each : sent) {
      isSent = isSent || isSame(summary, each);
    }
    if (!isSent) {
      left.append(summary);
    }
  }
  summaries_ = std::move(left);
}

void SummaryQueue::write(const core::String& path) noexcept {
  core::writeFileAtomically(path, core::encodeBinaryPropertyList(core::ValueArray()).span());
}

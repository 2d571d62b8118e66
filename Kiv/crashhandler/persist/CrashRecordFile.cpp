#include "Kiv/crashhandler/persist/CrashRecordFile.h"

#include <algorithm>
#include <cerrno>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Text/Format.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/crashhandler/persist/CrashIndexFile.h"
#include "Kiv/crashhandler/persist/StoreLock.h"

namespace {

constexpr std::string_view kPrefix = ".crash_";
constexpr std::int64_t kMillisecondsASecond = 1000;
constexpr std::size_t kLimit = std::size_t{64} << 20;

/// A record takes some times its bytes while it is read, merged and written again.
constexpr std::size_t kShareOfCrashHeap = 8;

std::size_t limit() noexcept {
  return core::CrashOwner::isCurrentThread()
             ? (core::CrashHeap::kCapacity - std::min(core::CrashHeap::used(), core::CrashHeap::kCapacity)) /
                   kShareOfCrashHeap
             : kLimit;
}

}  // namespace

core::String CrashRecordFile::nameOf(const KivExpObj& record) noexcept {
  return core::kiv_format(".crash_%@.data",
                          KivDeviceUtil::getFullTimeFileStrBy(record.cashTime / kMillisecondsASecond));
}

bool CrashRecordFile::isName(std::string_view name) noexcept {
  return name.starts_with(kPrefix) && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos && name != CrashIndexFile::kName;
}

CrashRecordFile::Content CrashRecordFile::read(const core::String& path) noexcept {
  Content content;
  const bool isComplete = withinCrashMemory([&] {
    const auto bytes = core::readFile(path, limit());
    if (!bytes) {
      const bool isTooLarge = bytes.error() == EFBIG && !core::CrashOwner::isCurrentThread();
      content.isBroken = isTooLarge || bytes.error() == EISDIR || bytes.error() == EINVAL;
      return;
    }
    content.record.emplace();
    if (!content.record->setEncodeData(bytes->span())) {
      content = {std::nullopt, true};
    }
  });
  return isComplete ? std::move(content) : Content();
}

int CrashRecordFile::write(const core::String& path, const core::Data& record) noexcept {
  return core::writeFileAtomically(path, record.span());
}

core::Array<core::String> CrashRecordFile::namesIn(const core::String& folder) noexcept {
  core::Array<core::String> names;
  const auto all = core::listDirectory(folder);
  for (std::size_t i = 0; all && i < all->size(); ++i) {
    const core::String& name = (*all)[i];
    if (name.view().starts_with(kPrefix)) {
      names.append(name);
      if (name == CrashIndexFile::kName) {
        std::rotate(names.begin(), names.end() - 1, names.end());
      }
    }
  }
  return names;
}

#include "Platform/Foundation/PropertyListFile.h"

#include <cerrno>
#include <cstring>

#include "Core/Files/File.h"
#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Platform/Foundation/PropertyListReader.h"
#include "Platform/Logging/NSLog.h"

namespace platform {
namespace {

constexpr std::size_t kLimit = std::size_t{16} << 20;

/// The XML reader takes heap memory; on the crash path only the form that is written here counts.
core::Result<core::Value> readStored(std::span<const std::uint8_t> bytes) noexcept {
  return core::CrashOwner::isCurrentThread() ? core::decodeBinaryPropertyList(bytes) : readPropertyList(bytes);
}

}  // namespace

StoredPropertyList readStoredPropertyList(const core::String& path, const core::String& aside) noexcept {
  const auto bytes = core::readFile(path, kLimit);
  if (!bytes && bytes.error() == ENOENT) {
    return {};
  }
  core::String problem;
  // What lacks a permission, a descriptor or memory says nothing about the content.
  bool unusable = true;
  if (bytes) {
    const auto value = readStored(bytes->span());
    if (const core::ValueDictionary* content = value ? value->dictionary() : nullptr) {
      return {*content, true, true};
    }
    problem = value ? core::String("it holds no dictionary")
                    : core::kiv_format("%s at byte %lu", value.error().reason, value.error().offset);
  } else {
    problem = strerrordesc_np(bytes.error());
    unusable = bytes.error() == EFBIG || bytes.error() == EISDIR || bytes.error() == EINVAL;
  }
  const core::String broken = core::kiv_format("%@.broken-%lld", aside, core::wallClockNanoseconds() / 1'000'000'000);
  if (!unusable || core::renameFile(path, broken) != 0) {
    NSLog("<KIV> cannot use %@ (%@); it is left alone and changes are not stored", path, problem);
    return {{}, false, true};
  }
  NSLog("<KIV> cannot use %@ (%@); it was moved to %@", path, problem, broken);
  return {};
}

int writeStoredPropertyList(const core::String& path, const core::ValueDictionary& content) noexcept {
  return core::writeFileAtomically(path, core::encodeBinaryPropertyList(core::Value(content)).span());
}

}  // namespace platform

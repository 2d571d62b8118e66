#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"

#include <elf.h>
#include <nettle/md5.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "Core/Files/Directory.h"
#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"

namespace {

using Images = KivBinaryImageCollector::Images;

constexpr std::size_t kUuidSize = 16;
constexpr std::size_t kPage = 4096;

constexpr std::int32_t kCpuX86 = 7;
constexpr std::int32_t kCpuX86_64 = 0x1000007;

std::int32_t cpuTypeOf(std::uint16_t machine) noexcept {
  switch (machine) {
    case EM_386:
      return kCpuX86;
    case EM_X86_64:
      return kCpuX86_64;
    default:
      return machine;
  }
}

/// Build ids have any length: a longer one is cut, a shorter one filled up with zeros.
core::String uuidOf(const core::Data& buildId) noexcept {
  std::array<std::uint8_t, kUuidSize> bytes{};
  std::memcpy(bytes.data(), buildId.data(), std::min(bytes.size(), buildId.size()));
  return KivBinaryImageCollector::kiv_encode16(bytes.data(), bytes.size());
}

/// Stands in for the build id that an image does not have. Empty when the code cannot be read.
core::String uuidOfCode(std::uint64_t base) noexcept {
  core::ImageHeaders headers;
  if (!headers.read(base)) {
    return {};
  }
  md5_ctx digest;
  md5_init(&digest);
  const std::uint64_t page = headers.codeStart() / kPage * kPage;
  // In pieces, to be kind to an alternate stack.
  for (std::size_t done = 0; done < kPage;) {
    std::array<std::uint8_t, 512> piece;
    if (!core::readOwnMemory(page + done, piece.data(), piece.size())) {
      return {};
    }
    md5_update(&digest, piece.size(), piece.data());
    done += piece.size();
  }
  std::array<std::uint8_t, kUuidSize> bytes;
  static_assert(MD5_DIGEST_SIZE == kUuidSize);
  md5_digest(&digest, bytes.size(), bytes.data());
  return KivBinaryImageCollector::kiv_encode16(bytes.data(), bytes.size());
}

Images describe(const core::Array<core::LoadedImage>& loaded, bool warns) noexcept {
  Images images;
  images.reserve(loaded.size());
  std::uint32_t index = 0;
  for (const core::LoadedImage& image : loaded) {
    if (auto info = KivBinaryImageCollector::imageAt(image.base, image.path)) {
      info->index = index;
      images.append(*std::move(info));
    } else if (warns) {
      kiv_log_warn("GetImageInfo failed with name %s", image.path);
    }
    ++index;
  }
  return images;
}

/// Whether the list speaks of these images. Of two files of equal size in one place with one name, the
/// build id tells.
bool isListOf(const Images& images, const core::Array<core::LoadedImage>& loaded) noexcept {
  const auto isSame = [](const KivMachImageInfo& image, const core::LoadedImage& other) {
    return image.base == other.base && image.size == other.size && image.name == other.path &&
           (other.buildId.empty() || image.uuid == uuidOf(other.buildId));
  };
  return std::equal(images.begin(), images.end(), loaded.begin(), loaded.end(), isSame);
}

bool isAround(std::uint64_t address, const KivMachImageInfo& image) noexcept {
  return image.base <= address && address <= image.base + image.size;
}

/// The generation of the code images, 0 where they are out of date themselves.
std::uint64_t trueGeneration() noexcept {
  const core::CodeImages::View code;
  return code.isTrue(core::OwnMemory()) ? code.generation() : 0;
}

CrashBinInfo binInfoOf(const KivMachImageInfo& image) noexcept {
  return {image.sname, image.uuid, image.cpu, core::kiv_format("%#018llx", image.base)};
}

}  // namespace

KivBinaryImageCollector& KivBinaryImageCollector::sharedInstance() noexcept {
  static core::Immortal<KivBinaryImageCollector> collector;
  return *collector;
}

void KivBinaryImageCollector::loadBinarys() noexcept {
  if (images_.read([](const Images& images) { return images.empty(); })) {
    reloadBinarys();
  }
}

void KivBinaryImageCollector::reloadBinarys() noexcept {
  generation_ = trueGeneration();
  set(describe(core::readLoadedImages(), true));
}

void KivBinaryImageCollector::set(Images images) noexcept {
  images_.set(std::move(images));
  changed_.call();
}

// An image that is missing may be gone, or a call may have failed: a second look tells.
void KivBinaryImageCollector::reloadBinarysIfChanged() noexcept {
  generation_ = trueGeneration();
  const auto isKnown = [this](const core::Array<core::LoadedImage>& loaded) {
    return images_.read([&](const Images& images) { return isListOf(images, loaded); });
  };
  core::Array<core::LoadedImage> loaded = core::readLoadedImages();
  if (!isKnown(loaded)) {
    loaded = core::readLoadedImages();
    if (!loaded.empty() && !isKnown(loaded)) {
      set(describe(loaded, true));
    }
  }
}

void KivBinaryImageCollector::bringUpToDate(std::span<const std::uint64_t> addresses) noexcept {
  const std::uint64_t generation = trueGeneration();
  const bool isTrue = generation != 0 && generation == generation_;
  const bool isWhole = isTrue && images_.read([addresses](const Images& images) {
    const KivMachImageInfo* last = nullptr;  // most frames lie in the image of their neighbour
    return std::all_of(addresses.begin(), addresses.end(), [&](std::uint64_t address) {
      last = last != nullptr && isAround(address, *last) ? last : around(address, images);
      return last != nullptr;
    });
  });
  if (!isWhole) {
    reloadBinarysIfChanged();
  }
}

Images KivBinaryImageCollector::collectBinaryImages() const noexcept {
  return describe(core::readLoadedImages(), false);
}

std::optional<KivMachImageInfo> KivBinaryImageCollector::getImageByAddr(std::uint64_t address) const noexcept {
  std::optional<KivMachImageInfo> found;
  lookAt(address, [&found](const KivMachImageInfo& image) { found = image; });
  return found;
}

const KivMachImageInfo* KivBinaryImageCollector::around(std::uint64_t address, const Images& images) noexcept {
  const auto* found = std::find_if(images.begin(), images.end(),
                                   [address](const KivMachImageInfo& image) { return isAround(address, image); });
  return found != images.end() ? found : nullptr;
}

void KivBinaryImageCollector::collectBinaryInfos(const std::optional<core::String>& processName) const noexcept {
  collectBinaryInfos(KivCrashData::expData(), images_.get(), processName);
}

void KivBinaryImageCollector::collectBinaryInfos(KivCrashData& data, const Images& images,
                                                 const std::optional<core::String>& processName) noexcept {
  if (!processName || images.empty()) {
    return;
  }
  core::Array<CrashBinInfo> others;
  for (const KivMachImageInfo& image : images) {
    if (image.sname == *processName) {
      const CrashBinInfo own = binInfoOf(image);
      data.setProcessName(own.processName);
      data.setProcessUUID(own.processUUID);
      data.setProcessArch(own.processArch);
      data.setProcessAddr(own.processAddr);
    } else if (data.allStackShortNames().contains(image.sname)) {
      others.append(binInfoOf(image));
    }
  }
  data.setCrashBinInfos(std::move(others));
}

bool KivBinaryImageCollector::GetImageInfo(std::uint64_t header, const core::String& name,
                                           KivMachImageInfo& info) noexcept {
  info.base = header;
  info.name = name;
  info.sname = core::lastPathComponent(name);
  struct {
    std::uint8_t identity[EI_NIDENT];
    std::uint16_t type;
    std::uint16_t machine;
  } front{};
  const bool isReadable = core::readOwnMemory(header, &front, sizeof front);
  if (!isReadable || std::memcmp(front.identity, ELFMAG, SELFMAG) != 0) {
    std::int32_t magic;
    std::memcpy(&magic, front.identity, sizeof magic);
    kiv_log_error("error mach iamge header magic %d", magic);
    return false;
  }
  info.cpu = getcpu(cpuTypeOf(front.machine), 0);
  core::ImageHeaders headers;
  if (!headers.read(header)) {
    return false;
  }
  info.base = headers.base();
  info.size = headers.codeEnd() - headers.base();
  const core::Data buildId = headers.buildId();
  if (buildId.empty()) {
    return false;
  }
  info.uuid = uuidOf(buildId);
  return true;
}

std::optional<KivMachImageInfo> KivBinaryImageCollector::imageAt(std::uint64_t header,
                                                                 const core::String& name) noexcept {
  KivMachImageInfo info;
  bool isKnown = GetImageInfo(header, name, info);
  if (!isKnown && info.size != 0) {
    info.uuid = uuidOfCode(header);
    isKnown = !info.uuid.empty();
  }
  return isKnown ? std::optional(std::move(info)) : std::nullopt;
}

core::String KivBinaryImageCollector::kiv_encode16(const std::uint8_t* bytes, std::size_t size) noexcept {
  return core::lowerHex({bytes, size});
}

core::String KivBinaryImageCollector::getcpu(std::int32_t type, std::int32_t subType) noexcept {
  switch (type) {
    case kCpuX86:
      return "x86";
    case kCpuX86_64:
      return "x86_64";
    default:
      return core::kiv_format("cpu_%d.%d", type & 0xff, subType & 0xff);
  }
}

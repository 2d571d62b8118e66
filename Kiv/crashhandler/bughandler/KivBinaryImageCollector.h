#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>

#include "Core/Memory/Array.h"
#include "Core/Memory/ChangeHook.h"
#include "Core/Memory/Immortal.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Kiv/crashhandler/bughandler/KivMachImageInfo.h"

class KivCrashData;

/// The process's images, in the order of core::readLoadedImages: the main program, then by
/// address. Loaded once, then kept until somebody reloads them. Any thread; fit for the crash path.
class KivBinaryImageCollector {
 public:
  using Images = core::Array<KivMachImageInfo>;

  static KivBinaryImageCollector& sharedInstance() noexcept;

  /// Loads the list if it is empty.
  void loadBinarys() noexcept;
  void reloadBinarys() noexcept;
  /// Reloads where the memory map has other images than the list; reads the map either way.
  void reloadBinarysIfChanged() noexcept;

  /// The same where the list may be out of date: an image of its time is gone, or one of the
  /// addresses lies outside its images. Some microseconds otherwise.
  void bringUpToDate(std::span<const std::uint64_t> addresses) noexcept;

  /// Called after the list was replaced, also by the owner of a crash.
  void onChange(void (*changed)()) noexcept { changed_.set(changed); }

  Images kivBinaryInfos() const noexcept { return images_.get(); }
  Images getAllBinarys() const noexcept { return images_.get(); }
  /// A fresh list that is not kept; images that cannot be told are left out in silence.
  Images collectBinaryImages() const noexcept;

  /// The first image of the list with base <= address <= base + size: the end counts too.
  std::optional<KivMachImageInfo> getImageByAddr(std::uint64_t address) const noexcept;

  /// Lets `look(const KivMachImageInfo&)` see that image without a copy; it must not call back
  /// here. False when there is none.
  template <class Look>
  bool lookAt(std::uint64_t address, Look&& look) const noexcept {
    return images_.read([&](const Images& images) {
      const KivMachImageInfo* image = around(address, images);
      if (image != nullptr) {
        look(*image);
      }
      return image != nullptr;
    });
  }

  /// Fills the crash data's facts of the process, from the image of that name, and its list of the
  /// other images that occur in the crash data's stacks.
  void collectBinaryInfos(const std::optional<core::String>& processName) const noexcept;
  /// The same of another list of images and other crash data.
  static void collectBinaryInfos(KivCrashData& data, const Images& images,
                                 const std::optional<core::String>& processName) noexcept;

  /// Describes the image whose first page is at `header`. False for what is no image, has no
  /// code or no build id; what could be told stands in `info` even so.
  static bool GetImageInfo(std::uint64_t header, const core::String& name, KivMachImageInfo& info) noexcept;

  /// The same of an image that may have no build id: a digest of its code stands in for that. Nothing
  /// for what is no image, or has no code.
  static std::optional<KivMachImageInfo> imageAt(std::uint64_t header, const core::String& name) noexcept;

  /// Two lower-case digits a byte.
  static core::String kiv_encode16(const std::uint8_t* bytes, std::size_t size) noexcept;
  static core::String getcpu(std::int32_t type, std::int32_t subType) noexcept;

 private:
  friend core::Immortal<KivBinaryImageCollector>;
  KivBinaryImageCollector() noexcept = default;

  static const KivMachImageInfo* around(std::uint64_t address, const Images& images) noexcept;

  void set(Images images) noexcept;

  core::ChangeHook<> changed_;
  core::Published<Images> images_;
  /// That of core::CodeImages just before the list was made, 0 where that was out of date: it
  /// is another one once an image has gone.
  std::atomic<std::uint64_t> generation_{0};
};

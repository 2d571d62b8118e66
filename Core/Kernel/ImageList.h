#pragma once

#include <cstdint>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/Bytes.h"
#include "Core/Memory/String.h"

namespace core {

/// One program file mapped into this process.
struct LoadedImage {
  std::uint64_t base;  ///< load address of the first segment
  std::uint64_t size;  ///< end of the last executable segment minus base
  String path;         ///< without a trailing " (deleted)"; "[vdso]" for the kernel's
  Data buildId;        ///< the GNU build id whole, empty where there is none
};

/// The images of the running process that have code, in address order, the main program
/// first. Read from the process's own memory map and through checked reads, not from the
/// loader, so that it may be called wherever Core may. Answers an empty list when there is
/// no process file system.
Array<LoadedImage> readLoadedImages() noexcept;

/// The path under which the image's file can be read even when it was replaced; `isMain` for the
/// main program's.
String readablePath(const LoadedImage& image, bool isMain) noexcept;

/// A published list that is refreshed in normal running, for whoever must not read the map then.
class ImageList {
 public:
  static void refresh() noexcept;
  static Array<LoadedImage> current() noexcept;
};

/// The image of `images` (in the order of readLoadedImages) that covers `address`, nullptr for none.
const LoadedImage* imageCovering(const Array<LoadedImage>& images, std::uint64_t address) noexcept;

}  // namespace core

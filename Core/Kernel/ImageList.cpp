#include "Core/Kernel/ImageList.h"

#include <sys/auxv.h>

#include <algorithm>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/MemoryMap.h"
#include "Core/Memory/Published.h"

namespace core {
namespace {

bool isProgramFile(const Mapping& mapping) noexcept {
  return mapping.offset == 0 && (mapping.path.starts_with('/') || mapping.path == "[vdso]");
}

String imagePath(std::string_view path) noexcept {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) {
    path.remove_suffix(kDeleted.size());
  }
  return replacedAll(path, "\\012", "\n");
}

/// Finds images in a sequence of mappings. A file that is mapped only to be read has the
/// headers of an image too: one counts when memory is executable where its code must be.
class ImageFinder {
 public:
  void add(const Mapping& mapping) noexcept {
    if (pending_) {
      settle(mapping);
    }
    if (isProgramFile(mapping) && !isOwnPart(mapping)) {
      pending_ = headers_.read(mapping.start);
      if (pending_) {
        path_ = mapping.path;
        settle(mapping);
      }
    }
  }

  Array<LoadedImage> take() noexcept { return std::move(images_); }

 private:
  /// A small file's first page is mapped again for its later segments.
  bool isOwnPart(const Mapping& mapping) const noexcept {
    return (pending_ || mapping.start < imageEnd_) && path_ == mapping.path;
  }

  /// Decides on the pending image once its code has come or cannot come any more. Code without
  /// a path is code that was moved to huge pages.
  void settle(const Mapping& mapping) noexcept {
    if (mapping.end <= headers_.codeStart()) {
      return;
    }
    pending_ = false;
    const bool isCode = mapping.start <= headers_.codeStart() && mapping.executable;
    if (isCode && (mapping.path.empty() || path_ == mapping.path)) {
      imageEnd_ = headers_.end();
      images_.append({headers_.base(), headers_.codeEnd() - headers_.base(), imagePath(path_), headers_.buildId()});
    }
  }

  Array<LoadedImage> images_;
  ImageHeaders headers_;  // of the pending image
  String path_;           // of the pending, else of the last image, as the kernel writes it
  bool pending_ = false;
  std::uint64_t imageEnd_ = 0;
};

void putMainProgramFirst(Array<LoadedImage>& images) noexcept {
  if (const LoadedImage* main = imageCovering(images, getauxval(AT_PHDR))) {
    auto* const at = images.begin() + (main - images.begin());
    std::rotate(images.begin(), at, at + 1);
  }
}

using PublishedImages = Published<Array<LoadedImage>>;

/// Made at the first refresh and never destroyed.
std::atomic<PublishedImages*> published{nullptr};

PublishedImages& publishedImages() noexcept {
  PublishedImages* known = published.load(std::memory_order_acquire);
  if (known != nullptr) {
    return *known;
  }
  auto* made = new (core::allocate(sizeof(PublishedImages))) PublishedImages;
  if (published.compare_exchange_strong(known, made, std::memory_order_acq_rel)) {
    return *made;
  }
  made->~PublishedImages();
  core::deallocate(made);
  return *known;
}

}  // namespace

Array<LoadedImage> readLoadedImages() noexcept {
  auto map = MemoryMap::open();
  if (!map) {
    return {};
  }
  ImageFinder finder;
  for (Mapping mapping; (*map).next(mapping);) {
    finder.add(mapping);
  }
  Array<LoadedImage> images = finder.take();
  putMainProgramFirst(images);
  return images;
}

void ImageList::refresh() noexcept {
  publishedImages().update([](Array<LoadedImage>& images) { images = readLoadedImages(); });
}

Array<LoadedImage> ImageList::current() noexcept {
  const PublishedImages* images = published.load(std::memory_order_acquire);
  return images != nullptr ? images->get() : Array<LoadedImage>();
}

const LoadedImage* imageCovering(const Array<LoadedImage>& images, std::uint64_t address) noexcept {
  if (images.empty()) {
    return nullptr;
  }
  const auto covers = [address](const LoadedImage& image) { return address - image.base < image.size; };
  if (covers(images[0])) {
    return images.begin();
  }
  const auto isBelow = [](std::uint64_t wanted, const LoadedImage& image) { return wanted < image.base; };
  const LoadedImage* image = std::upper_bound(images.begin() + 1, images.end(), address, isBelow) - 1;
  return covers(*image) ? image : nullptr;
}

String readablePath(const LoadedImage& image, bool isMain) noexcept {
  return isMain ? String("/proc/self/exe") : image.path;
}

}  // namespace core

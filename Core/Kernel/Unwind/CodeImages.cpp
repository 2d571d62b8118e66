#include "Core/Kernel/Unwind/CodeImages.h"

#include <algorithm>
#include <atomic>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Unwind/RuleCache.h"
#include "Core/Kernel/Unwind/TableLoader.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Mutex.h"

namespace core {

struct CodeImages::Table {
  Array<CodeImage> images;  // by address
  std::uint64_t generation = 1;
  Table* older = nullptr;  // among those that are not used any more
};

namespace {

/// All copies of tables together, as much as some hundred megabytes of code come with.
constexpr std::size_t kMostCopiedBytes = std::size_t{16} << 20;
constexpr std::size_t kImagesAtOnce = 32;

std::size_t copiedBytes(const Array<CodeImage>& images) noexcept {
  std::size_t sum = 0;
  for (const CodeImage& image : images) {
    sum += image.table.entries.copy.size() + image.table.index.copy.size();
  }
  return sum;
}

void setMark(CodeImage& image, const ImageHeaders& headers, const OwnMemory& memory) noexcept {
  const AddressRange buildId = headers.buildIdPlace();
  image.markPlace = buildId.start;
  if (buildId.empty() || !memory.read(image.markPlace, image.mark.data(), image.mark.size())) {
    image.markPlace = image.base + offsetof(Elf64_Ehdr, e_entry);
    memory.read(image.markPlace, image.mark.data(), image.mark.size());
  }
}

bool isInPlace(const CodeImage& image, const OwnMemory& memory) noexcept {
  std::array<std::uint8_t, CodeImage::kMarkSize> mark;
  return memory.read(image.markPlace, mark.data(), mark.size()) && mark == image.mark;
}

const CodeImage* imageAt(const Array<CodeImage>& images, std::uint64_t base) noexcept {
  const auto* found = std::find_if(images.begin(), images.end(), [base](const CodeImage& i) { return i.base == base; });
  return found != images.end() ? found : nullptr;
}

/// The path under which the file can be read even when it was replaced.
String filePath(const LoadedImage& image, bool isMain) noexcept {
  return isMain ? String("/proc/self/exe") : image.path;
}

constinit Mutex refreshing;
constinit std::atomic<bool> metUnknownCode{false};

}  // namespace

constinit std::atomic<CodeImages::Table*> CodeImages::current_{nullptr};
constinit std::atomic<std::uint32_t> CodeImages::views_{0};
constinit CodeImages::Table* CodeImages::retired_ = nullptr;

void CodeImages::refresh() noexcept {
  const Lock lock(refreshing);
  const Array<LoadedImage> loaded = lock.held() ? readLoadedImages() : Array<LoadedImage>();
  if (loaded.empty()) {
    return;
  }
  const OwnMemory memory;
  const Table* before = current_.load(std::memory_order_relaxed);
  auto* made = new (core::allocate(sizeof(Table))) Table;
  Array<const LoadedImage*> fresh;
  for (const LoadedImage& image : loaded) {
    const CodeImage* known = before != nullptr ? imageAt(before->images, image.base) : nullptr;
    if (known != nullptr && isInPlace(*known, memory)) {
      made->images.append(*known);
    } else {
      fresh.append(&image);
    }
  }
  if (before != nullptr) {
    made->generation = before->generation + (made->images.size() == before->images.size() ? 0 : 1);
  }
  TableLoader loader(kMostCopiedBytes - std::min(copiedBytes(made->images), kMostCopiedBytes));
  for (const LoadedImage* image : fresh) {
    ImageHeaders headers;
    if (headers.read(image->base)) {
      CodeImage& added = made->images.emplace();
      added.base = headers.base();
      added.codeStart = headers.codeStart();
      added.codeEnd = headers.codeEnd();
      setMark(added, headers, memory);
      added.table = loader.load(headers, filePath(*image, image == loaded.begin()));
    }
  }
  std::sort(made->images.begin(), made->images.end(),
            [](const CodeImage& a, const CodeImage& b) { return a.codeStart < b.codeStart; });
  publish(made);
}

void CodeImages::publish(Table* made) noexcept {
  Table* before = current_.exchange(made, std::memory_order_seq_cst);
  if (before == nullptr || CrashOwner::exists()) {
    return;
  }
  if ((made->generation & RuleCache::kGenerationMask) < (before->generation & RuleCache::kGenerationMask)) {
    ruleCache.clear();
  }
  before->older = retired_;
  retired_ = before;
  if (views_.load(std::memory_order_seq_cst) == 0) {
    while (retired_ != nullptr) {
      Table* older = retired_->older;
      retired_->~Table();
      core::deallocate(retired_);
      retired_ = older;
    }
  }
}

void CodeImages::refreshIfChanged() noexcept {
  const bool isTrue = View().isTrue(OwnMemory());
  if (metUnknownCode.exchange(false, std::memory_order_relaxed) || !isTrue) {
    refresh();
  }
}

void CodeImages::noteUnknownCode() noexcept {
  metUnknownCode.store(true, std::memory_order_relaxed);
}

CodeImages::View::View() noexcept {
  views_.fetch_add(1, std::memory_order_seq_cst);
  renew();
}

CodeImages::View::~View() {
  views_.fetch_sub(1, std::memory_order_release);
}

void CodeImages::View::renew() noexcept {
  table_ = current_.load(std::memory_order_seq_cst);
}

const CodeImage* CodeImages::View::covering(std::uint64_t address) const noexcept {
  if (table_ == nullptr) {
    return nullptr;
  }
  const auto isBelow = [](std::uint64_t wanted, const CodeImage& image) { return wanted < image.codeStart; };
  const CodeImage* const first = table_->images.begin();
  const CodeImage* const after = std::upper_bound(first, table_->images.end(), address, isBelow);
  return after != first && address < (after - 1)->codeEnd ? after - 1 : nullptr;
}

std::uint64_t CodeImages::View::generation() const noexcept {
  return table_ != nullptr ? table_->generation : 1;
}

bool CodeImages::View::isTrue(const OwnMemory& memory) const noexcept {
  if (table_ == nullptr) {
    return false;
  }
  const Array<CodeImage>& images = table_->images;
  std::array<iovec, kImagesAtOnce> places;
  std::array<std::array<std::uint8_t, CodeImage::kMarkSize>, kImagesAtOnce> marks;
  for (std::size_t first = 0; first < images.size(); first += kImagesAtOnce) {
    const std::size_t count = std::min(kImagesAtOnce, images.size() - first);
    for (std::size_t i = 0; i < count; ++i) {
      places[i] = {reinterpret_cast<void*>(images[first + i].markPlace), CodeImage::kMarkSize};
    }
    if (!memory.gather(std::span(places).first(count), marks.data(), count * CodeImage::kMarkSize)) {
      return false;
    }
    for (std::size_t i = 0; i < count; ++i) {
      if (marks[i] != images[first + i].mark) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace core

#include "Core/Kernel/Unwind/CodeImages.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Unwind/TableLoader.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Mutex.h"

namespace core {

struct CodeImages::Table {
  Array<CodeImage> images;  // by address
  std::uint64_t generation = 1;
};

namespace {

/// What is kept of all images together, as much as some hundred megabytes of code come with.
constexpr std::size_t kMostKeptBytes = std::size_t{16} << 20;
constexpr std::size_t kImagesAtOnce = 32;

std::size_t keptBytes(const CodeImage& image) noexcept {
  return image.table.entries.copy.size() + image.table.index.copy.size() + (image.steps ? (*image.steps)->size() : 0);
}

/// What may still be kept beside those.
std::size_t roomBeside(const Array<CodeImage>& images) noexcept {
  std::size_t kept = 0;
  for (const CodeImage& image : images) {
    kept += keptBytes(image);
  }
  return kMostKeptBytes - std::min(kept, kMostKeptBytes);
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

void addSteps(CodeImage& image, std::size_t room) noexcept {
  image.steps = Shared(StepTable::of(image.table, {image.codeStart, image.codeEnd}, room));
  if ((*image.steps)->size() != 0) {
    image.table.entries.copy = Data();  // what is left to be read there is not worth the memory
  }
}

constinit Mutex reloading;
constinit Mutex refreshing;
constinit std::atomic<bool> metUnknownCode{false};

}  // namespace

constinit Viewed<CodeImages::Table> CodeImages::tables_;

void CodeImages::reload() noexcept {
  const Lock lock(reloading);
  const Array<LoadedImage> loaded = lock.held() ? readLoadedImages() : Array<LoadedImage>();
  if (loaded.empty()) {
    return;
  }
  const OwnMemory memory;
  const Table* before = tables_.current();
  Table made;
  Array<const LoadedImage*> fresh;
  for (const LoadedImage& image : loaded) {
    const CodeImage* known = before != nullptr ? imageAt(before->images, image.base) : nullptr;
    if (known != nullptr && isInPlace(*known, memory)) {
      made.images.append(*known);
    } else {
      fresh.append(&image);
    }
  }
  if (before != nullptr) {
    const bool isSame = fresh.empty() && made.images.size() == before->images.size();
    made.generation = before->generation + (isSame ? 0 : 1);
  }
  TableLoader loader(roomBeside(made.images));
  for (const LoadedImage* image : fresh) {
    ImageHeaders headers;
    if (headers.read(image->base)) {
      CodeImage& added = made.images.emplace();
      added.base = headers.base();
      added.codeStart = headers.codeStart();
      added.codeEnd = headers.codeEnd();
      setMark(added, headers, memory);
      added.table = loader.load(headers, readablePath(*image, image == loaded.begin()));
    }
  }
  std::sort(made.images.begin(), made.images.end(),
            [](const CodeImage& a, const CodeImage& b) { return a.codeStart < b.codeStart; });
  tables_.publish(std::move(made));
}

void CodeImages::refresh() noexcept {
  reload();
  if (!CrashOwner::isCurrentThread()) {
    const Lock lock(refreshing);
    workOutSteps();
  }
}

// It takes long enough that a dump should not wait for it: so not under the lock of reload().
void CodeImages::workOutSteps() noexcept {
  Array<CodeImage> images;
  {
    const Viewed<Table>::View view(tables_);
    images = view.get() != nullptr ? view.get()->images : Array<CodeImage>();
  }
  bool isAnyNew = false;
  for (CodeImage& image : images) {
    if (!image.steps) {
      addSteps(image, roomBeside(images) + keptBytes(image));
      isAnyNew = true;
    }
  }
  if (!isAnyNew) {
    return;
  }
  const Lock lock(reloading);
  Table made = *tables_.current();
  for (CodeImage& image : made.images) {
    const CodeImage* ready = imageAt(images, image.base);
    if (ready != nullptr && ready->mark == image.mark) {
      image = *ready;
    }
  }
  tables_.publish(std::move(made));
}

void CodeImages::refreshIfChanged() noexcept {
  const bool isTrue = View().isTrue(OwnMemory());
  if (metUnknownCode.exchange(false, std::memory_order_relaxed) || !isTrue) {
    reload();
  }
}

void CodeImages::noteUnknownCode() noexcept {
  metUnknownCode.store(true, std::memory_order_relaxed);
}

CodeImages::View::View() noexcept : table_(tables_) {}

void CodeImages::View::renew() noexcept {
  table_.renew();
}

const CodeImage* CodeImages::View::covering(std::uint64_t address) const noexcept {
  const Table* table = table_.get();
  if (table == nullptr) {
    return nullptr;
  }
  const auto isBelow = [](std::uint64_t wanted, const CodeImage& image) { return wanted < image.codeStart; };
  const CodeImage* const first = table->images.begin();
  const CodeImage* const after = std::upper_bound(first, table->images.end(), address, isBelow);
  return after != first && (after - 1)->covers(address) ? after - 1 : nullptr;
}

std::uint64_t CodeImages::View::generation() const noexcept {
  return table_.get() != nullptr ? table_.get()->generation : 0;
}

bool CodeImages::View::isTrue(const OwnMemory& memory) const noexcept {
  const Table* table = table_.get();
  if (table == nullptr) {
    return false;
  }
  const Array<CodeImage>& images = table->images;
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

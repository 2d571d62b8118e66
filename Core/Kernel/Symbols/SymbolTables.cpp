#include "Core/Kernel/Symbols/SymbolTables.h"

#include <algorithm>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Shared.h"

namespace core {
namespace {

struct ImageSymbols {
  LoadedImage image;
  Shared<SymbolIndex> index;
};

bool isSame(const LoadedImage& a, const LoadedImage& b) noexcept {
  return a.base == b.base && a.size == b.size && a.path == b.path && a.buildId == b.buildId;
}

constinit Mutex refreshing;

}  // namespace

struct SymbolTables::Table {
  Array<ImageSymbols> images;  // by address
};

constinit Viewed<SymbolTables::Table> SymbolTables::tables_;

void SymbolTables::refresh() noexcept {
  if (CrashOwner::isCurrentThread()) {
    return;
  }
  const Lock lock(refreshing);
  const Array<LoadedImage> loaded = readLoadedImages();
  if (loaded.empty()) {
    return;
  }
  const Table* before = tables_.current();
  Table made;
  for (const LoadedImage& image : loaded) {
    const ImageSymbols* known = nullptr;
    if (before != nullptr) {
      known = std::find_if(before->images.begin(), before->images.end(),
                           [&image](const ImageSymbols& old) { return isSame(old.image, image); });
      known = known != before->images.end() ? known : nullptr;
    }
    ImageHeaders headers;
    if (known != nullptr) {
      made.images.append(*known);
    } else if (headers.read(image.base)) {
      const bool isMain = &image == loaded.begin();
      made.images.append({image, Shared(SymbolIndex::of(headers, readablePath(image, isMain)))});
    }
  }
  std::sort(made.images.begin(), made.images.end(),
            [](const ImageSymbols& a, const ImageSymbols& b) { return a.image.base < b.image.base; });
  tables_.publish(std::move(made));
}

SymbolTables::View::View() noexcept : table_(tables_) {}

std::optional<Symbol> SymbolTables::View::lookup(std::uint64_t address) const noexcept {
  const Table* table = table_.get();
  if (table == nullptr) {
    return std::nullopt;
  }
  const auto isBelow = [](std::uint64_t wanted, const ImageSymbols& image) { return wanted < image.image.base; };
  const ImageSymbols* const first = table->images.begin();
  const ImageSymbols* const after = std::upper_bound(first, table->images.end(), address, isBelow);
  return after != first ? (after - 1)->index->lookup(address) : std::nullopt;
}

bool SymbolTables::View::has(std::uint64_t base) const noexcept {
  const Table* table = table_.get();
  return table != nullptr && std::any_of(table->images.begin(), table->images.end(),
                                         [base](const ImageSymbols& image) { return image.image.base == base; });
}

}  // namespace core

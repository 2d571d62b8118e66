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

/// The path under which the file can be read even when it was replaced.
String filePath(const LoadedImage& image, bool isMain) noexcept {
  return isMain ? String("/proc/self/exe") : image.path;
}

constinit Mutex refreshing;

}  // namespace

struct SymbolTables::Table {
  Array<ImageSymbols> images;  // by address
  Table* older = nullptr;      // among those that are not used any more
};

constinit std::atomic<SymbolTables::Table*> SymbolTables::current_{nullptr};
constinit std::atomic<std::uint32_t> SymbolTables::views_{0};
constinit SymbolTables::Table* SymbolTables::retired_ = nullptr;

void SymbolTables::refresh() noexcept {
  if (CrashOwner::isCurrentThread()) {
    return;
  }
  const Lock lock(refreshing);
  const Array<LoadedImage> loaded = readLoadedImages();
  if (loaded.empty()) {
    return;
  }
  const Table* before = current_.load(std::memory_order_relaxed);
  auto* made = new (core::allocate(sizeof(Table))) Table;
  for (const LoadedImage& image : loaded) {
    const ImageSymbols* known = nullptr;
    if (before != nullptr) {
      known = std::find_if(before->images.begin(), before->images.end(),
                           [&image](const ImageSymbols& old) { return isSame(old.image, image); });
      known = known != before->images.end() ? known : nullptr;
    }
    ImageHeaders headers;
    if (known != nullptr) {
      made->images.append(*known);
    } else if (headers.read(image.base)) {
      const bool isMain = &image == loaded.begin();
      made->images.append({image, Shared(SymbolIndex::of(headers, filePath(image, isMain)))});
    }
  }
  std::sort(made->images.begin(), made->images.end(),
            [](const ImageSymbols& a, const ImageSymbols& b) { return a.image.base < b.image.base; });
  publish(made);
}

void SymbolTables::publish(Table* made) noexcept {
  Table* before = current_.exchange(made, std::memory_order_seq_cst);
  if (before == nullptr || CrashOwner::exists()) {
    return;
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

SymbolTables::View::View() noexcept {
  views_.fetch_add(1, std::memory_order_seq_cst);
  table_ = current_.load(std::memory_order_seq_cst);
}

SymbolTables::View::~View() {
  views_.fetch_sub(1, std::memory_order_release);
}

std::optional<Symbol> SymbolTables::View::lookup(std::uint64_t address) const noexcept {
  if (table_ == nullptr) {
    return std::nullopt;
  }
  const auto isBelow = [](std::uint64_t wanted, const ImageSymbols& image) { return wanted < image.image.base; };
  const ImageSymbols* const first = table_->images.begin();
  const ImageSymbols* const after = std::upper_bound(first, table_->images.end(), address, isBelow);
  return after != first ? (after - 1)->index->lookup(address) : std::nullopt;
}

}  // namespace core

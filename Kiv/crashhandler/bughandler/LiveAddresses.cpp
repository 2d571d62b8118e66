#include "Kiv/crashhandler/bughandler/LiveAddresses.h"

#include <utility>

#include "Core/Kernel/Symbols/ExportedSymbol.h"
#include "Core/Kernel/Unwind/CodeBytes.h"
#include "Core/Memory/CrashOwner.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"

LiveAddresses::LiveAddresses(Kept& kept, bool needSymbol, std::optional<core::String> procName) noexcept
    : kept_(kept),
      isCrash_(core::CrashOwner::isCurrentThread()),
      needSymbol_(needSymbol),
      procName_(std::move(procName)) {}

std::optional<AddressSource::Place> LiveAddresses::placeOf(std::uint64_t address) const noexcept {
  std::optional<Place> place;
  KivBinaryImageCollector::sharedInstance().lookAt(address, [&place](const KivMachImageInfo& image) {
    place.emplace(Place{image.sname, image.base});
  });
  return place;
}

bool LiveAddresses::namesFunctionsOf(const core::String& moduleName) noexcept {
  return needSymbol_ || (procName_ && moduleName != *procName_);
}

std::optional<core::Symbol> LiveAddresses::functionAt(std::uint64_t address) const noexcept {
  if (const auto symbol = symbols_.lookup(address)) {
    return symbol;
  }
  const auto place = placeOf(address);
  const bool isNew = place && !symbols_.has(place->base);
  return isNew ? core::findExportedSymbol(place->base, address, name_) : std::nullopt;
}

std::size_t LiveAddresses::symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) const noexcept {
  return kiv_symbolicate(functionAt(address), buffer);
}

bool LiveAddresses::isSignalReturn(std::uint64_t address) const noexcept {
  return core::isSignalReturn(images_, memory_, address);
}

template <class Use>
auto LiveAddresses::withFrames(Use&& use) noexcept {
  if (isCrash_) {
    return use(kept_.framesOfCrash);
  }
  const core::Lock lock(kept_.mutex);
  return use(kept_.frames);
}

std::optional<AddressSource::Frame> LiveAddresses::kept(std::uint64_t address) noexcept {
  return withFrames([address](const FrameCache& frames) {
    const Frame* frame = frames.find(address);
    return frame != nullptr ? std::optional(*frame) : std::nullopt;
  });
}

AddressSource::Frame LiveAddresses::keep(const Frame& frame) noexcept {
  return withFrames([&frame](FrameCache& frames) {
    const Frame* other = frames.find(frame->addr);  // made by another thread meanwhile
    if (other == nullptr) {
      frames.insert(frame);
    }
    return other != nullptr ? *other : frame;
  });
}

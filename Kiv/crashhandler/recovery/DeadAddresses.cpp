#include "Kiv/crashhandler/recovery/DeadAddresses.h"

#include <algorithm>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Unwind/CodeBytes.h"

DeadAddresses::DeadAddresses(const Images& images, const std::optional<core::String>& processName, bool namesOwn,
                             Files files) noexcept
    : images_(images), processName_(processName), namesOwn_(namesOwn), files_(files) {
  while (programs_.size() < images_.size()) {
    programs_.emplace();
  }
}

const KivMachImageInfo* DeadAddresses::imageAround(std::uint64_t address) const noexcept {
  const auto* found = std::find_if(images_.begin(), images_.end(), [address](const KivMachImageInfo& image) {
    return address - image.base <= image.size;
  });
  return found != images_.end() ? found : nullptr;
}

const DeadAddresses::Program& DeadAddresses::programOf(const KivMachImageInfo& image) const noexcept {
  Program& program = programs_[static_cast<std::size_t>(&image - images_.begin())];
  if (program.isLookedFor || files_ == Files::kIgnore) {
    return program;
  }
  program.isLookedFor = true;
  if (auto mapped = core::MappedProgram::open(image.name)) {
    const auto found = KivBinaryImageCollector::imageAt(mapped->headers().base(), image.name);
    if (found && found->uuid == image.uuid) {
      program.symbols = core::SymbolIndex::of(mapped->headers(), image.name);
      program.file.emplace(*std::move(mapped));
    }
  }
  return program;
}

std::optional<AddressSource::Place> DeadAddresses::placeOf(std::uint64_t address) const noexcept {
  const KivMachImageInfo* image = imageAround(address);
  return image != nullptr ? std::optional(Place{image->sname, image->base}) : std::nullopt;
}

bool DeadAddresses::namesFunctionsOf(const core::String& moduleName) noexcept {
  return namesOwn_ || (processName_ && moduleName != *processName_);
}

std::optional<core::Symbol> DeadAddresses::functionAt(std::uint64_t address) const noexcept {
  const KivMachImageInfo* image = imageAround(address);
  if (image == nullptr) {
    return std::nullopt;
  }
  const Program& program = programOf(*image);
  if (!program.file) {
    return std::nullopt;
  }
  const std::uint64_t moved = program.file->headers().base() - image->base;
  auto function = program.symbols->lookup(address + moved);
  if (function) {
    function->start -= moved;
  }
  return function;
}

std::size_t DeadAddresses::symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) const noexcept {
  return kiv_symbolicate(functionAt(address), buffer);
}

bool DeadAddresses::isSignalReturn(std::uint64_t address) const noexcept {
  const KivMachImageInfo* image = imageAround(address);
  if (image == nullptr) {
    return false;
  }
  const Program& program = programOf(*image);
  return program.file &&
         core::isSignalReturn(core::OwnMemory(), address - image->base + program.file->headers().base());
}

std::optional<AddressSource::Frame> DeadAddresses::kept(std::uint64_t address) noexcept {
  const Frame* frame = frames_.find(address);
  return frame != nullptr ? std::optional(*frame) : std::nullopt;
}

AddressSource::Frame DeadAddresses::keep(const Frame& frame) noexcept {
  frames_.insert(frame);
  return frame;
}

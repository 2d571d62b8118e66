#include "Kiv/crashhandler/journal/JournalView.h"

#include <algorithm>
#include <cstring>

#include "Core/Memory/Checksum.h"

JournalView::JournalView(std::span<const std::uint8_t> bytes) noexcept
    : bytes_(core::Bytes::filled(sizeof(JournalLayout),
                                 [bytes](char* into) {
                                   const std::size_t size = std::min(bytes.size(), sizeof(JournalLayout));
                                   std::memcpy(into, bytes.data(), size);
                                   std::memset(into + size, 0, sizeof(JournalLayout) - size);
                                 })),
      layout_(reinterpret_cast<const JournalLayout*>(bytes_.data())) {}

bool JournalView::mayHoldCrash(std::span<const std::uint8_t> front) noexcept {
  if (front.size() < JournalLayout::kFrontSize) {
    return true;
  }
  JournalLayout::Head head;
  std::memcpy(&head, front.data(), sizeof head);
  const auto isWritten = [front](std::size_t place, std::size_t size) {
    const auto bytes = front.subspan(place, size);
    return std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; });
  };
  const std::size_t exception =
      offsetof(JournalLayout, copies) +
      std::size_t{static_cast<std::uint32_t>(JournalPart::kException)} * sizeof(JournalLayout::copies[0]);
  return head.magic != JournalLayout::kMagic || head.version != JournalLayout::kVersion ||
         isWritten(offsetof(JournalLayout, entries), sizeof(JournalLayout::entries)) ||
         isWritten(exception, sizeof(JournalLayout::copies[0]));
}

JournalView::Fault JournalView::fault() const noexcept {
  if (head().magic != JournalLayout::kMagic) {
    return Fault::kForeign;
  }
  const bool isOfThisVersion = head().version == JournalLayout::kVersion && head().size == sizeof(JournalLayout);
  return isOfThisVersion ? Fault::kNone : Fault::kOtherVersion;
}

std::span<const JournalLayout::Entry> JournalView::entries() const noexcept {
  std::size_t count = 0;
  for (const JournalLayout::Entry& entry : layout().entries) {
    if (entry.factsCheck != core::checksum(&entry.facts, sizeof entry.facts)) {
      break;
    }
    ++count;
  }
  return std::span(layout().entries).first(count);
}

std::span<const JournalLayout::Entry> JournalView::openEntries() const noexcept {
  const auto all = entries();
  return all.size() > head().settled ? all : all.first(0);
}

std::span<const std::uint64_t> JournalView::stackOf(const JournalLayout::Entry& entry) noexcept {
  const std::size_t count = std::min<std::size_t>(entry.frameCount, entry.frames.size());
  if (count != 0 && entry.framesCheck == core::checksum(entry.frames.data(), count * sizeof entry.frames[0])) {
    return std::span(entry.frames).first(count);
  }
  static_assert(sizeof entry.facts.registers[REG_RIP] == sizeof(std::uint64_t));
  return {reinterpret_cast<const std::uint64_t*>(&entry.facts.registers[REG_RIP]), 1};
}

JournalView::Part JournalView::state(JournalPart part) const noexcept {
  const auto& copies = layout().copies[static_cast<std::size_t>(part)];
  if (copies[0].generation == 0 && copies[1].generation == 0) {
    return Part::kAbsent;
  }
  return bytesOf(part).data() != nullptr ? Part::kWhole : Part::kDamaged;
}

std::span<const std::uint8_t> JournalView::bytesOf(JournalPart part) const noexcept {
  const auto& copies = layout().copies[static_cast<std::size_t>(part)];
  const std::size_t newest = copies[1].generation > copies[0].generation ? 1 : 0;
  const auto bytes = copyOf(part, newest);
  return bytes.data() != nullptr ? bytes : copyOf(part, 1 - newest);
}

std::span<const std::uint8_t> JournalView::copyOf(JournalPart part, std::size_t copy) const noexcept {
  const auto index = static_cast<std::size_t>(part);
  const JournalLayout::Copy& head = layout().copies[index][copy];
  const std::uint8_t* bytes = layout().parts.data() + journalPartPlace(part, copy);
  const bool isWhole =
      head.generation != 0 && head.size <= kJournalPartSizes[index] && head.check == core::checksum(bytes, head.size);
  return isWhole ? std::span(bytes, head.size) : std::span<const std::uint8_t>();
}

std::string_view JournalView::log() const noexcept {
  const JournalLayout::Log& log = layout().log;
  const bool isWhole = log.size <= log.bytes.size() && log.check == core::checksum(log.bytes.data(), log.size) &&
                       log.entries == entries().size();
  return isWhole ? std::string_view(log.bytes.data(), log.size) : std::string_view();
}

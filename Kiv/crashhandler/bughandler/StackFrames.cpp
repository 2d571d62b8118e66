#include "Kiv/crashhandler/bughandler/StackFrames.h"

#include <array>

#include "Core/Text/Format.h"

namespace {

using Frame = AddressSource::Frame;

constexpr std::uint64_t kAlignment = 16;
constexpr std::string_view kHiddenName = "<redacted>";

/// Functions are looked up by the aligned address, unless that brings up one that ends before the
/// code which was executing.
KivCrashAddrInfo::Text symbolText(const AddressSource& source, std::uint64_t aligned,
                                  std::uint64_t executing) noexcept {
  const auto nearby = source.functionAt(aligned);
  const bool covers = nearby && executing - nearby->start < nearby->size;
  std::array<char, kKivSymbolBuffer> buffer;
  const std::string_view text(buffer.data(), source.symbolicate(covers ? aligned : executing, buffer));
  if (text.empty() || text.starts_with(kHiddenName)) {
    return std::nullopt;
  }
  return core::String(text);
}

/// What a stack's frame was executing. A return address lies behind its call, perhaps in the next
/// function; where a thread was stopped or interrupted, the address itself was next.
std::uint64_t executingAddress(const AddressSource& source, std::span<const std::uint64_t> stack, std::size_t index,
                               StackTop top) noexcept {
  const auto isSignalReturn = [&](std::size_t i) { return source.isSignalReturn(stack[i]); };
  const bool isExact =
      index == 0 ? top == StackTop::kStopped || isSignalReturn(0) : isSignalReturn(index) || isSignalReturn(index - 1);
  return stack[index] - (isExact ? 0 : 1);
}

std::optional<Frame> makeFrame(AddressSource& source, std::uint64_t address, std::uint32_t index,
                               std::uint64_t executing) noexcept {
  const std::uint64_t aligned = address / kAlignment * kAlignment;
  auto place = source.placeOf(aligned);
  if (!place) {
    return std::nullopt;
  }
  KivCrashAddrInfo made;
  made.index = index;
  made.addr = address;
  made.offset = aligned - place->base;
  if (source.namesFunctionsOf(place->moduleName)) {
    made.lineStr = symbolText(source, aligned, executing);
  }
  if (!made.lineStr) {
    made.lineStr = core::kiv_format("%#018llx + %lu", place->base, made.offset);
  }
  made.moduleName = std::move(place->moduleName);
  made.fullLine = made.getFullStackLine();
  return source.keep(Frame(std::move(made)));
}

}  // namespace

KivStack framesOf(AddressSource& source, std::span<const std::uint64_t> addresses, StackTop top) noexcept {
  KivStack stack;
  stack.reserve(addresses.size());
  for (std::uint32_t i = 0; i < addresses.size(); ++i) {
    std::optional<Frame> frame = source.kept(addresses[i]);
    if (!frame) {
      frame = makeFrame(source, addresses[i], i, executingAddress(source, addresses, i, top));
    }
    if (frame) {
      stack.append(*std::move(frame));
    }
  }
  return stack;
}

std::optional<Frame> frameOf(AddressSource& source, std::uint64_t address, std::uint32_t index) noexcept {
  const std::optional<Frame> known = source.kept(address);
  return known ? known : makeFrame(source, address, index, index == 0 ? address : address - 1);
}

#include "Core/Kernel/Unwind/CodeBytes.h"

#include <array>
#include <cstring>

namespace core {
namespace {

constexpr std::size_t kLongestCall = 7;
constexpr std::uint8_t kCallNear = 0xE8;
constexpr std::size_t kCallNearSize = 5;
constexpr std::uint8_t kCallIndirect = 0xFF;

/// Size of an instruction from its one-byte opcode on, by the operand bytes behind that.
std::size_t indirectSize(std::uint8_t mode, std::uint8_t indexed) noexcept {
  const unsigned addressing = mode >> 6;
  const unsigned base = mode & 7;
  if (addressing == 3) {
    return 2;
  }
  const bool isIndexed = base == 4;
  const std::size_t size = isIndexed ? 3 : 2;
  if (addressing == 1) {
    return size + 1;
  }
  const bool hasOnlyDistance = addressing == 0 && (base == 5 || (isIndexed && (indexed & 7) == 5));
  return addressing == 2 || hasOnlyDistance ? size + 4 : size;
}

bool isIndirectCall(const std::uint8_t* code, std::size_t size) noexcept {
  constexpr std::uint8_t kOperation = 0x38;
  constexpr std::uint8_t kCall = 0x10;
  return code[0] == kCallIndirect && (code[1] & kOperation) == kCall &&
         indirectSize(code[1], size > 2 ? code[2] : 0) == size;
}

}  // namespace

bool followsCall(const OwnMemory& memory, std::uint64_t address) noexcept {
  std::array<std::uint8_t, kLongestCall> code;
  if (address < code.size() || !memory.read(address - code.size(), code.data(), code.size())) {
    return false;
  }
  if (code[kLongestCall - kCallNearSize] == kCallNear) {
    return true;
  }
  for (std::size_t size = 2; size <= kLongestCall; ++size) {
    if (isIndirectCall(code.data() + kLongestCall - size, size)) {
      return true;
    }
  }
  return false;
}

bool isSignalReturn(const OwnMemory& memory, std::uint64_t address) noexcept {
  constexpr std::array<std::uint8_t, 9> kLong = {0x48, 0xC7, 0xC0, 0x0F, 0, 0, 0, 0x0F, 0x05};  // mov $15,%rax; syscall
  constexpr std::array<std::uint8_t, 7> kShort = {0xB8, 0x0F, 0, 0, 0, 0x0F, 0x05};             // mov $15,%eax; syscall
  std::array<std::uint8_t, kLong.size()> code{};
  const std::size_t count = memory.readFront(address, code.data(), code.size());
  return (count >= kLong.size() && code == kLong) ||
         (count >= kShort.size() && std::memcmp(code.data(), kShort.data(), kShort.size()) == 0);
}

bool isSignalReturn(const CodeImages::View& images, const OwnMemory& memory, std::uint64_t address) noexcept {
  const CodeImage* const image = images.covering(address);
  const bool isCommon = image != nullptr && image->steps && (*image->steps)->find(address).kind() == StepRule::kCommon;
  return !isCommon && isSignalReturn(memory, address);
}

}  // namespace core

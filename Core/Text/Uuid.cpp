#include "Core/Text/Uuid.h"

#include <sys/random.h>
#include <sys/syscall.h>

#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr char kUpperDigits[] = "0123456789ABCDEF";

char* putHex(char* out, std::span<const std::uint8_t> bytes, const char* digits) noexcept {
  for (const std::uint8_t byte : bytes) {
    *out++ = digits[byte >> 4];
    *out++ = digits[byte & 15];
  }
  return out;
}

String hexText(std::span<const std::uint8_t> bytes, const char* digits) noexcept {
  return String(Bytes::filled(bytes.size() * 2, [&](char* out) { putHex(out, bytes, digits); }));
}

std::uint64_t scrambled(std::uint64_t value) noexcept {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
  return value ^ (value >> 31);
}

/// Differs between processes, moments and calls; for a kernel that gives no random bytes.
std::uint64_t distinctNumber() noexcept {
  static std::atomic<std::uint64_t> calls{0};
  const std::uint64_t call = calls.fetch_add(1, std::memory_order_relaxed);
  const auto process = static_cast<std::uint64_t>(processId());
  std::uint64_t number = scrambled(static_cast<std::uint64_t>(wallClockNanoseconds()));
  number = scrambled(number ^ static_cast<std::uint64_t>(monotonicNanoseconds()));
  return scrambled(number ^ (process << 32) ^ call);
}

}  // namespace

String generateUuid() noexcept {
  std::uint8_t bytes[16];
  // A generator that is not seeded yet would block.
  const long filled = systemCall(SYS_getrandom, bytes, sizeof bytes, GRND_NONBLOCK);
  if (filled != static_cast<long>(sizeof bytes)) {
    const std::uint64_t numbers[] = {distinctNumber(), distinctNumber()};
    std::memcpy(bytes, numbers, sizeof bytes);
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);

  return String(Bytes::filled(36, [&](char* out) {
    const std::span<const std::uint8_t> all(bytes);
    std::size_t from = 0;
    for (const std::size_t group : {4U, 2U, 2U, 2U, 6U}) {
      if (from != 0) {
        *out++ = '-';
      }
      out = putHex(out, all.subspan(from, group), kUpperDigits);
      from += group;
    }
  }));
}

String lowerHex(std::span<const std::uint8_t> bytes) noexcept {
  return hexText(bytes, kLowerDigits);
}

String upperHex(std::span<const std::uint8_t> bytes) noexcept {
  return hexText(bytes, kUpperDigits);
}

}  // namespace core

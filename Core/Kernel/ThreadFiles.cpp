#include "Core/Kernel/ThreadFiles.h"

#include <algorithm>
#include <charconv>

#include "Core/Kernel/TaskDirectory.h"

namespace core {
namespace {

/// Longer than the longest front of "status" that holds its signal sets.
constexpr std::size_t kStatusRoom = 2048;

template <std::size_t N>
std::optional<std::string_view> readText(int thread, std::string_view name, char (&room)[N]) noexcept {
  const long count = TaskDirectory::read(thread, name, room);
  if (count <= 0) {
    return std::nullopt;
  }
  return std::string_view(room, static_cast<std::size_t>(count));
}

std::string_view takeWord(std::string_view& text) noexcept {
  const std::size_t end = text.find_first_of(" \n");
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return word;
}

template <class T>
bool parseNumber(std::string_view word, T& number, int base) noexcept {
  const auto [end, error] = std::from_chars(word.begin(), word.end(), number, base);
  return error == std::errc() && end == word.end();
}

/// What follows `key`, nothing when it is not there.
std::string_view valueOf(std::string_view key, std::string_view text) noexcept {
  const std::size_t at = text.find(key);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + key.size());
  return text;
}

bool parseAddress(std::string_view word, std::uint64_t& address) noexcept {
  if (!word.starts_with("0x")) {
    return false;
  }
  word.remove_prefix(2);
  return parseNumber(word, address, 16);
}

}  // namespace

ThreadName readThreadName(int thread) noexcept {
  ThreadName name{};
  if (const auto text = readText(thread, "comm", name.bytes)) {
    name.bytes[std::min(text->find('\n'), sizeof name.bytes - 1)] = '\0';
  }
  return name;
}

std::optional<SleepingThread> readSleepingThread(int thread) noexcept {
  char room[256];
  const auto text = readText(thread, "syscall", room);
  return text ? parseSleepingThread(*text) : std::nullopt;
}

std::optional<KernelSignalSet> readBlockedSignals(int thread) noexcept {
  char room[kStatusRoom];
  const auto text = readText(thread, "status", room);
  return text ? parseBlockedSignals(*text) : std::nullopt;
}

// "<number> <six arguments> <stack pointer> <instruction pointer>" in a system call,
// "-1 <stack pointer> <instruction pointer>" outside, "running".
std::optional<SleepingThread> parseSleepingThread(std::string_view text) noexcept {
  constexpr int kArguments = 6;
  SleepingThread thread{};
  if (!parseNumber(takeWord(text), thread.call, 10)) {
    return std::nullopt;
  }
  for (int i = 0; thread.call >= 0 && i < kArguments; ++i) {
    takeWord(text);
  }
  if (!parseAddress(takeWord(text), thread.stackPointer) || !parseAddress(takeWord(text), thread.instructionPointer) ||
      thread.instructionPointer == 0) {
    return std::nullopt;
  }
  return thread;
}

std::optional<KernelSignalSet> parseBlockedSignals(std::string_view text) noexcept {
  constexpr std::size_t kDigits = 16;
  const std::string_view state = valueOf("\nState:\t", text);
  const std::string_view blocked = valueOf("\nSigBlk:\t", text);
  KernelSignalSet set = 0;
  if (state.starts_with('Z') || state.starts_with('X') || !parseNumber(blocked.substr(0, kDigits), set, 16)) {
    return std::nullopt;
  }
  return set;
}

}  // namespace core

#include "Core/Kernel/MemoryMap.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>

#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

/// Takes a hexadecimal number off the front of `text`.
std::uint64_t takeHex(std::string_view& text) noexcept {
  std::uint64_t value = 0;
  for (; !text.empty(); text.remove_prefix(1)) {
    const char digit = text.front();
    if (digit >= '0' && digit <= '9') {
      value = value * 16 + static_cast<std::uint64_t>(digit - '0');
    } else if (digit >= 'a' && digit <= 'f') {
      value = value * 16 + static_cast<std::uint64_t>(digit - 'a' + 10);
    } else {
      break;
    }
  }
  return value;
}

void skip(std::string_view& text, std::size_t count) noexcept {
  text.remove_prefix(std::min(count, text.size()));
}

/// "start-end rwxp offset device inode    path"
Mapping parseMapping(std::string_view line) noexcept {
  Mapping mapping{};
  mapping.start = takeHex(line);
  skip(line, 1);
  mapping.end = takeHex(line);
  skip(line, 1);
  mapping.executable = line.size() > 2 && line[2] == 'x';
  skip(line, 5);
  mapping.offset = takeHex(line);
  skip(line, 1);
  skip(line, line.find(' '));
  skip(line, 1);
  skip(line, line.find(' '));
  skip(line, line.find_first_not_of(' '));
  mapping.path = line;
  return mapping;
}

}  // namespace

// By thread: once the first thread has ended, the process's own map is empty.
Result<MemoryMap, int> MemoryMap::open() noexcept {
  auto file = File::open("/proc/thread-self/maps", O_RDONLY);
  if (!file) {
    return file.error();
  }
  return MemoryMap(std::move(*file));
}

bool MemoryMap::next(Mapping& mapping) noexcept {
  line_.clear();
  for (;;) {
    const std::size_t end = rest_.find('\n');
    line_.append(rest_.substr(0, end));
    if (end != std::string_view::npos) {
      rest_.remove_prefix(end + 1);
      mapping = parseMapping(line_.view());
      return true;
    }
    block_.clear();
    char* room = block_.extend(kBlock);
    const long count = restartedSystemCall(SYS_read, file_.descriptor(), room, kBlock);
    if (count <= 0) {
      return false;
    }
    rest_ = {room, static_cast<std::size_t>(count)};
  }
}

}  // namespace core

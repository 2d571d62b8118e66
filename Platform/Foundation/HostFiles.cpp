#include "Platform/Foundation/HostFiles.h"

#include <fcntl.h>

#include <charconv>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"

namespace platform {
namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20;

}  // namespace

std::optional<core::String> readHostFile(const core::String& directory, std::string_view name) noexcept {
  const auto file = core::File::open(core::joinPath(directory, name), O_RDONLY);
  if (!file) {
    return std::nullopt;
  }
  const auto bytes = file->readAll(kLargestFile);
  if (!bytes) {
    return std::nullopt;
  }
  return core::String(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
}

std::optional<std::string_view> valueOfLine(std::string_view text, std::string_view key) noexcept {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line.starts_with(key)) {
      return core::trimmed(line.substr(key.size()));
    }
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
  }
  return std::nullopt;
}

std::optional<std::uint64_t> takeNumber(std::string_view& text) noexcept {
  const std::size_t start = text.find_first_not_of(" \t");
  if (start == std::string_view::npos) {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data() + start, text.data() + text.size(), number);
  if (error != std::errc()) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace platform

#include "Platform/Foundation/ProcessInfo.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

#include "Core/Files/Directory.h"
#include "Core/Kernel/Process.h"
#include "Core/Text/Format.h"

namespace platform {
namespace {

// Fields of a process's stat line, counted from 1; the second is a name that may hold anything.
constexpr int kFirstFieldAfterName = 3;
constexpr int kStartTimeField = 22;

}  // namespace

core::String executablePath() noexcept {
  char target[PATH_MAX];
  const ssize_t size = ::readlink("/proc/self/exe", target, sizeof(target));
  if (size <= 0) {
    return {};
  }
  std::string_view path(target, static_cast<std::size_t>(size));
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) {
    path.remove_suffix(kDeleted.size());
  }
  return path;
}

core::String processName() noexcept {
  static const core::String& name = *new core::String([]() -> core::String {
    const core::String path = executablePath();
    return path.empty() ? core::String(program_invocation_short_name) : core::String(core::lastPathComponent(path));
  }());
  return name;
}

int parentProcessId() noexcept {
  return ::getppid();
}

core::String parentProcessName(const HostFiles& files) noexcept {
  const auto name = readHostFile(files.proc, core::kiv_format("%d/comm", parentProcessId()));
  if (!name) {
    return {};
  }
  std::string_view text = *name;
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  }
  return text;
}

std::uint64_t physicalMemory() noexcept {
  struct sysinfo facts {};
  return ::sysinfo(&facts) == 0 ? std::uint64_t{facts.totalram} * facts.mem_unit : 0;
}

std::optional<bool> debuggerAttached(const HostFiles& files) noexcept {
  const auto status = readHostFile(files.proc, "self/status");
  auto tracer = status ? valueOfLine(*status, "TracerPid:") : std::nullopt;
  const auto id = tracer ? takeNumber(*tracer) : std::nullopt;
  return id ? std::optional(*id != 0) : std::nullopt;
}

std::optional<std::int64_t> bootTime(const HostFiles& files) noexcept {
  const auto statistics = readHostFile(files.proc, "stat");
  auto line = statistics ? valueOfLine(*statistics, "btime ") : std::nullopt;
  const auto seconds = line ? takeNumber(*line) : std::nullopt;
  return seconds ? std::optional(static_cast<std::int64_t>(*seconds)) : std::nullopt;
}

std::optional<core::String> bootId(const HostFiles& files) noexcept {
  const auto text = readHostFile(files.proc, "sys/kernel/random/boot_id");
  const std::string_view id = text ? core::trimmed(*text) : std::string_view();
  return id.empty() ? std::nullopt : std::optional<core::String>(id);
}

std::optional<std::int64_t> processStartTime(const HostFiles& files) noexcept {
  const auto text = readHostFile(files.proc, "self/stat");
  const std::size_t name = text ? text->view().rfind(')') : std::string_view::npos;
  if (name == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view fields = text->view().substr(name + 1);
  for (int field = kFirstFieldAfterName; field < kStartTimeField; ++field) {
    const std::size_t start = fields.find_first_not_of(' ');
    const std::size_t end = fields.find(' ', start);
    if (end == std::string_view::npos) {
      return std::nullopt;
    }
    fields.remove_prefix(end);
  }
  const auto ticks = takeNumber(fields);
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  timespec sinceBoot{};
  if (!ticks || ticksPerSecond <= 0 || ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot) != 0) {
    return std::nullopt;
  }
  const std::int64_t started = static_cast<std::int64_t>(*ticks) * 1000 / ticksPerSecond;
  const std::int64_t running = std::int64_t{sinceBoot.tv_sec} * 1000 + sinceBoot.tv_nsec / 1'000'000 - started;
  return core::wallClockNanoseconds() / 1'000'000 - running;
}

}  // namespace platform

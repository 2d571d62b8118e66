#include "Kiv/crashhandler/bughandler/CrashNote.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <ucontext.h>

#include <atomic>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/Immortal.h"
#include "Core/Memory/Published.h"
#include "Core/Text/Format.h"
#include "Core/Text/LocalTime.h"
#include "Kiv/crashhandler/bughandler/KivSignalNames.h"

namespace {

constexpr std::string_view kPrefix = "crash_";
constexpr std::string_view kSeenPrefix = "seen_crash_";
constexpr std::string_view kSuffix = ".txt";
constexpr std::size_t kSeenKept = 10;

core::Published<core::String>& directoryOfNotes() noexcept {
  static core::Immortal<core::Published<core::String>> directory;
  return *directory;
}

// Open at all times, and given up for the note when a program has used up its descriptors.
std::atomic<int> spareDescriptor{-1};

void giveUpSpareDescriptor() noexcept {
  if (const int spare = spareDescriptor.exchange(-1); spare >= 0) {
    core::systemCall(SYS_close, spare);
  }
}

struct Register {
  const char* name;
  int index;
};
constexpr Register kRegisters[] = {
    {"rax", REG_RAX}, {"rbx", REG_RBX}, {"rcx", REG_RCX}, {"rdx", REG_RDX}, {"rsi", REG_RSI},    {"rdi", REG_RDI},
    {"rbp", REG_RBP}, {"rsp", REG_RSP}, {"r8", REG_R8},   {"r9", REG_R9},   {"r10", REG_R10},    {"r11", REG_R11},
    {"r12", REG_R12}, {"r13", REG_R13}, {"r14", REG_R14}, {"r15", REG_R15}, {"rflags", REG_EFL}, {"rip", REG_RIP},
};
constexpr std::size_t kRegistersALine = 4;

/// The address that a fault reports; only codes above 0 carry one.
std::uint64_t addressOf(const siginfo_t& info) noexcept {
  return info.si_code > 0 ? reinterpret_cast<std::uint64_t>(info.si_addr) : 0;
}

void appendSignal(core::StringBuilder& text, const siginfo_t& info) noexcept {
  char buffer[32];
  const char* name;
  const char* code;
  kiv_map_sig_name(&info, buffer, name, code);
  core::kiv_append(text, "Exception Type: %s\nException Codes: %s at %#018llx\n", name, code, addressOf(info));
}

void appendTime(core::StringBuilder& text, std::int64_t seconds) noexcept {
  const core::CivilTime time = core::civilTime(seconds, core::cachedUtcOffset());
  core::kiv_append(text, "Date/Time: %d-%02d-%02d %02d:%02d:%02d\n", time.year, time.month, time.day, time.hour,
                   time.minute, time.second);
}

void appendPlace(core::StringBuilder& text, std::uint64_t address) noexcept {
  const core::Array<core::LoadedImage> images = core::ImageList::current();
  const core::LoadedImage* image = core::imageCovering(images, address);
  if (image == nullptr) {
    core::kiv_append(text, "Crashed at: %#018llx in no image\n", address);
    return;
  }
  core::kiv_append(text, "Crashed at: %#018llx %@ + %lu\nImage: %@\n", address, core::lastPathComponent(image->path),
                   address - image->base, image->path);
}

void appendRegisters(core::StringBuilder& text, const mcontext_t& machine) noexcept {
  std::size_t written = 0;
  for (const Register& row : kRegisters) {
    text.append(written++ % kRegistersALine == 0 ? '\n' : ' ');
    core::kiv_append(text, "%6s: %#018llx", row.name, static_cast<std::uint64_t>(machine.gregs[row.index]));
  }
  text.append('\n');
}

bool isNote(std::string_view name, std::string_view prefix) noexcept {
  return name.starts_with(prefix) && name.ends_with(kSuffix);
}

void removeOldSeen(const core::String& directory) noexcept {
  const auto names = core::listDirectory(directory);
  core::Array<core::String> seen;
  for (std::size_t i = 0; names && i < names->size(); ++i) {
    if (isNote((*names)[i], kSeenPrefix)) {
      seen.append((*names)[i]);
    }
  }
  for (std::size_t i = 0; i + kSeenKept < seen.size(); ++i) {
    core::removeFile(core::joinPath(directory, seen[i]));
  }
}

}  // namespace

void CrashNote::prepare(const core::String& directory) noexcept {
  directoryOfNotes().set(directory);
  if (spareDescriptor < 0) {
    spareDescriptor = static_cast<int>(core::systemCall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC, 0));
  }
  core::ImageList::refresh();
}

bool CrashNote::write(const siginfo_t& info, const void* context) noexcept {
  const std::int64_t seconds = core::wallClockNanoseconds() / 1'000'000'000;
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
  core::StringBuilder text;
  core::CrashSection::run([&] {
    appendTime(text, seconds);
    appendSignal(text, info);
    core::kiv_append(text, "Process: %d\nThread: %d\n", core::processId(), core::threadId());
    appendPlace(text, static_cast<std::uint64_t>(machine.gregs[REG_RIP]));
    appendRegisters(text, machine);
  });
  bool written = false;
  core::CrashSection::run([&] {
    // Seconds of ten digits, so that names sort by time.
    const core::String name = core::kiv_format("%@%010lld_%d%@", kPrefix, seconds, core::processId(), kSuffix);
    const core::String path = core::joinPath(directoryOfNotes().get(), name);
    const std::string_view bytes = text.view();
    giveUpSpareDescriptor();
    const auto file = core::File::open(path, O_WRONLY | O_CREAT | O_TRUNC);
    written = file && file->write({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}) == 0 &&
              file->sync() == 0;
  });
  return written;
}

std::optional<core::String> CrashNote::takeNewest(const core::String& directory) noexcept {
  std::optional<core::String> newest;
  const auto names = core::listDirectory(directory);
  for (std::size_t i = 0; names && i < names->size(); ++i) {
    const core::String& name = (*names)[i];
    if (!isNote(name, kPrefix)) {
      continue;
    }
    const core::String from = core::joinPath(directory, name);
    const core::String to = core::joinPath(directory, core::kiv_format("seen_%@", name));
    newest = core::renameFile(from, to) == 0 ? to : from;
  }
  if (newest) {
    removeOldSeen(directory);
  }
  return newest;
}

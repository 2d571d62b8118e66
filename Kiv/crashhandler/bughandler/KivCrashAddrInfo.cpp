#include "Kiv/crashhandler/bughandler/KivCrashAddrInfo.h"

#include "Core/Text/Format.h"

namespace {

constexpr std::size_t kModuleColumns = 30;

}  // namespace

core::String KivCrashAddrInfo::getFullStackLine() const noexcept {
  if (!fullLine.empty()) {
    return fullLine;
  }
  core::StringBuilder line(128);
  appendFullStackLine(line);
  return line.str();
}

void KivCrashAddrInfo::appendFullStackLine(core::StringBuilder& line) const noexcept {
  if (!fullLine.empty()) {
    line.append(fullLine);
    return;
  }
  core::kiv_append(line, "%-2d", index);
  if (moduleName) {
    core::kiv_append(line, " %@", *moduleName);
    const std::size_t written = moduleName->characters();
    line.append(written < kModuleColumns ? kModuleColumns - written : 0, ' ');
  } else {
    core::kiv_append(line, "%-30s", " ");
  }
  core::kiv_append(line, " %#018llx ", addr);
  if (lineStr) {
    line.append(*lineStr);
  }
}

core::String KivCrashAddrInfo::description() const noexcept {
  return core::kiv_format("%-2d %-37s %@ %@", index, moduleName, addr, lineStr);
}

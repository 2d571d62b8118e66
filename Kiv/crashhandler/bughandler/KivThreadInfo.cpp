#include "Kiv/crashhandler/bughandler/KivThreadInfo.h"

#include "Core/Text/Format.h"

KivThreadInfo::Texts KivThreadInfo::getAllShortNames() const noexcept {
  Texts names;
  for (const auto& frame : threadStacks) {
    if (frame->moduleName && !names.contains(*frame->moduleName)) {
      names.append(*frame->moduleName);
    }
  }
  return names;
}

core::String KivThreadInfo::getCurrThreadUUID() const noexcept {
  core::StringBuilder text;
  for (const auto& frame : threadStacks) {
    core::kiv_append(text, "%lu", frame->offset);
  }
  return text.str();
}

core::String KivThreadInfo::getCurrThreadStackLines() const noexcept {
  core::StringBuilder text;
  for (const auto& frame : threadStacks) {
    core::kiv_append(text, "%@\n", frame->getFullStackLine());
  }
  if (threadStacks.empty()) {
    for (const core::String& line : threadTrace) {
      core::kiv_append(text, "%@\n", line);
    }
  }
  return text.str();
}

core::String KivThreadInfo::description() const noexcept {
  return core::kiv_format("Thread %d name: %@", threadIndex, threadName);
}

core::String KivThreadInfo::debugDescription() const noexcept {
  core::StringBuilder lines;
  for (const auto& frame : threadStacks) {
    lines.append(lines.empty() ? "" : "\n");
    lines.append(frame->getFullStackLine());
  }
  return core::kiv_format("\n%@\nThread %d:\n%@ \nCrashed:%@", description(), threadIndex, lines.view(),
                          isCrashThread ? "YES" : "NO");
}

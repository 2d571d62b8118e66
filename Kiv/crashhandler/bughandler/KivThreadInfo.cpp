#include "Kiv/crashhandler/bughandler/KivThreadInfo.h"

#include "Core/Text/Format.h"

KivThreadInfo::Texts KivThreadInfo::getAllShortNames() const noexcept {
  Texts names;
  addShortNamesTo(names);
  return names;
}

// Frames of one image share the bytes of its name, which saves most comparisons.
void KivThreadInfo::addShortNamesTo(Texts& names) const noexcept {
  const char* last = nullptr;
  for (const auto& frame : threadStacks) {
    if (frame->moduleName && frame->moduleName->data() != last) {
      last = frame->moduleName->data();
      if (!names.contains(*frame->moduleName)) {
        names.append(*frame->moduleName);
      }
    }
  }
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
    frame->appendFullStackLine(text);
    text.append('\n');
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
    frame->appendFullStackLine(lines);
  }
  return core::kiv_format("\n%@\nThread %d:\n%@ \nCrashed:%@", description(), threadIndex, lines.view(),
                          isCrashThread ? "YES" : "NO");
}

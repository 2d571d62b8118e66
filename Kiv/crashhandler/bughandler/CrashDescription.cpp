#include "Kiv/crashhandler/bughandler/CrashDescription.h"

#include "Core/Text/Format.h"
#include "Core/Text/Utf8.h"
#include "Kiv/crashhandler/bughandler/KivSignalNames.h"
#include "Kiv/crashhandler/bughandler/StackFrames.h"
#include "Kiv/crashhandler/bughandler/ThreadCapture.h"

namespace {

/// A program may give a thread any bytes for a name; a report shows one line of text.
core::String printableName(std::string_view name) noexcept {
  core::StringBuilder shown;
  while (!name.empty()) {
    const core::Utf8Character next = core::decodeUtf8(name);
    const bool isControl = next.codePoint < ' ' || (next.codePoint >= 0x7F && next.codePoint < 0xA0);
    shown.append(next.valid && !isControl ? name.substr(0, next.size) : "?");
    name.remove_prefix(next.size);
  }
  return shown.str();
}

core::String eventOf(const CrashFacts& facts, const core::String& sdkVersion) noexcept {
  if (facts.count == 1) {
    return core::kiv_format("sdk[%@] handle signal: %d info(%d, %d, %d)", sdkVersion, facts.signal, facts.signal,
                            facts.error, facts.code);
  }
  return core::kiv_format("sdk handle signal: %d info(%d, %d, %d)", facts.signal, facts.signal, facts.error,
                          facts.code);
}

}  // namespace

void describeEntry(KivCrashData& data, const CrashFacts& facts, const core::String& sdkVersion) noexcept {
  if (facts.count > 1) {
    data.setCrashOnceMore(true);
  }
  data.appendSessionEvent(eventOf(facts, sdkVersion));
  data.setTime(facts.time);
  data.setHandler(core::String("Signal Handler"));
  siginfo_t info{};
  info.si_signo = facts.signal;
  info.si_code = facts.code;
  char buffer[32];
  const char* name;
  const char* code;
  kiv_map_sig_name(&info, buffer, name, code);
  const KivCrashData::Text thrown = data.type();
  data.setType(thrown ? core::kiv_format("%@(%@)", *thrown, name) : core::kiv_format("%s", name));
  if (!data.error()) {
    data.setError(core::kiv_format("%s", code));
  }
  data.setAddress(core::kiv_format("%#018llx", facts.address));
  data.setCrashThread(facts.crashThread);
  if (!data.crashOnceMore()) {
    data.addLastExceptionInfo(
        core::kiv_format("Exception Type: %@\nException Codes: %@ at %@", data.type(), data.error(), data.address()));
  }
}

void describeException(KivCrashData& data, std::span<const std::uint64_t> addresses, AddressSource& source) noexcept {
  KivThreadInfo thrown;
  thrown.threadStacks = framesOf(source, addresses, StackTop::kReturn);
  data.setOcThreadInfo(std::move(thrown));
}

// One by one into the crash data: those before stay when the memory of the crash is used up.
void describeThreads(KivCrashData& data, const CrashSnapshot& snapshot, std::uint32_t crashThread,
                     AddressSource& source) noexcept {
  const auto captured = snapshot.allThreads();
  data.allThreadInfos().clear();
  data.allThreadInfos().reserve(captured.size());
  for (const CrashSnapshot::Thread& thread : captured) {
    if (!snapshot.isWhole(thread)) {
      continue;
    }
    data.allThreadInfos().append(describedThread(snapshot, thread, source));
    if (ThreadCapture::isSameThread(thread.port, crashThread)) {
      setCrashedThread(data, data.allThreadInfos().back());
    }
  }
}

KivThreadInfo describedThread(const CrashSnapshot& snapshot, const CrashSnapshot::Thread& captured,
                              AddressSource& source) noexcept {
  KivThreadInfo thread;
  thread.threadIndex = captured.index;
  thread.threadName = printableName(captured.name.view());
  thread.threadStacks = framesOf(source, snapshot.stackOf(captured));
  return thread;
}

void setCrashedThread(KivCrashData& data, KivThreadInfo& thread) noexcept {
  thread.isCrashThread = true;
  data.addLastExceptionInfo(core::kiv_format("Highlighted Thread: %d", thread.threadIndex));
  data.setCrashThreadInfo(thread);
}

void describeModules(KivCrashData& data) noexcept {
  KivCrashData::Texts names;
  for (const KivThreadInfo& thread : data.allThreadInfos()) {
    thread.addShortNamesTo(names);
  }
  data.setAllStackShortNames(std::move(names));
  if (data.ocThreadInfo()) {
    data.setCrashStackShortNames(data.ocThreadInfo()->getAllShortNames());
  } else if (data.crashThreadInfo()) {
    data.setCrashStackShortNames(data.crashThreadInfo()->getAllShortNames());
  }
}

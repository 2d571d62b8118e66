#pragma once

#include <string_view>
#include <type_traits>

#include "Core/Text/Format.h"

namespace platform {

/// Writes one line of the log; what NSLog calls. Lines go to standard error as
/// "2018-03-05 14:03:09.123 process[pid:thread] text" and, where it exists, to the system's
/// log socket.
///
/// Any thread and the crash path: Core only, errno kept. Never waits: what a full pipe or
/// socket does not take at once is dropped, and so is everything on a broken one, without a
/// SIGPIPE.
void writeLogLine(std::string_view text) noexcept;

/// Gets the texts in place of standard error and the system's log; for tests.
using LogSink = void (*)(std::string_view text) noexcept;

/// Installs `sink` for the whole process, nullptr for none. Answers the one before.
LogSink setLogSink(LogSink sink) noexcept;

/// Where the system's log listens, "/dev/log" until set. `path` is kept as it is: a constant.
void setSystemLogSocket(const char* path) noexcept;

}  // namespace platform

/// One line of the process's log, see platform::writeLogLine:
///
///     NSLog("cannot write %@: %s", path, strerrordesc_np(error));
template <class... A>
void NSLog(core::FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  core::StringBuilder text;
  core::kiv_append(text, format, arguments...);
  platform::writeLogLine(text.view());
}

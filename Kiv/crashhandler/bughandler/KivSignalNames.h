#pragma once

#include <signal.h>

/// The signals that count as crashes, in the order in which they are installed.
inline constexpr int fatalsigs[6] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGTRAP};

/// Points `name` and `code` at the names of a signal and of its code; where the tables have
/// none, at their decimal text, which is written into `buffer` (at least 30 bytes: the name's
/// from byte 0, the code's from byte 15). Fit for a signal handler.
void kiv_map_sig_name(const siginfo_t* info, char* buffer, const char*& name, const char*& code) noexcept;

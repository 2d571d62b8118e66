#pragma once

#include <string>

namespace test {

/// Ends the process in a way that the victims of the harness do not: abort, hang (a null write
/// whose handling never comes back from a system call), heap-calls (a null write on a fresh thread
/// that shows its heap calls, one malloc and one free ahead of the fault; not in sanitizer
/// builds), by-another-thread (waits for it).
void crash(const std::string& kind);

/// Starts a thread that uses up its stack as soon as it has an alternate one.
void overflowOnceGivenAStack();

}  // namespace test

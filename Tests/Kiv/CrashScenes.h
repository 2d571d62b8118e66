#pragma once

#include <string>

namespace test {

/// Ends the process in one of the ways that a program can crash:
///
/// null-write, call-null, non-canonical, division, abort, stack-overflow, no-descriptors (a null
/// write with all descriptors used up), no-memory (with the address space limit reached),
/// ten-faults and two-aborts (threads at once), hang (the handling never comes back from a
/// system call), second-fault (the handling itself faults), heap-calls (a null write on a
/// fresh thread that shows its heap calls, one malloc and one free ahead of the fault; not in
/// sanitizer builds), by-another-thread (waits for it).
void crash(const std::string& kind);

/// Starts a thread that uses up its stack as soon as it has an alternate one.
void overflowOnceGivenAStack();

}  // namespace test

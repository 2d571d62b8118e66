#pragma once

// Ways to go wrong, some frames deep.

/// Writes through a null pointer.
void simulateSignal();
/// Hangs in the program's own part of the handling of a crash; for setUserCrashHandlerCallback.
int simulateHang();
/// Gives up as the C library does.
void simulateAbort();
/// Throws what nobody catches.
void simulateException();

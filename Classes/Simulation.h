#pragma once

// Ways to go wrong, some frames deep.

/// Writes through a null pointer.
void simulateSignal();
/// Gives up as the C library does.
void simulateAbort();
/// Throws what nobody catches.
void simulateException();

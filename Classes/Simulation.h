#pragma once

/// Writes through a null pointer, some frames deep.
void simulateSignal();

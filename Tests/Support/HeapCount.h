#pragma once

namespace test {

/// Makes each further call of the heap on the calling thread visible: it writes a line
/// "heap call: malloc" to standard error. Programs linked with HeapCount.cpp only, which
/// stands in front of the C library's malloc family (and so of operator new).
void showHeapCalls() noexcept;

}  // namespace test

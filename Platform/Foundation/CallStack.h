#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

/// The stacks that exceptions carry and that reports of the program's own show. By the C++
/// runtime's unwinder and the loader's symbols: normal running only, never the crash path.

/// Return addresses of the calling thread from `first` (a caller's __builtin_return_address(0))
/// on, innermost first, 256 at most; the whole stack when `first` is not on it.
std::vector<std::uintptr_t> captureReturnAddresses(const void* first);

/// A line for each address: "0  module   0x00007f12ab34cd56 symbol + 12", module and symbol
/// names as far as they are known.
std::vector<std::string> callStackLines(const std::vector<std::uintptr_t>& addresses);

/// The lines of the calling thread's stack, from the caller of this function on.
std::vector<std::string> callStackSymbols();

/// The readable form of a compiler's symbol name, or the name itself where it is none.
std::string demangledName(const char* name);

}  // namespace platform

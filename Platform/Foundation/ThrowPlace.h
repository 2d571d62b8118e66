#pragma once

#include <cstdint>
#include <vector>

namespace platform {

/// The return addresses of the place where the calling thread threw `exception` (the object
/// itself), innermost first. Empty unless it was the thread's last throw and the program links
/// the hook on throwing (ThrowHook.cpp), which costs each throw a walk of the stack.
std::vector<std::uintptr_t> throwPlace(const void* exception);

}  // namespace platform

/// What the hook calls for each throw. Exported for it.
extern "C" __attribute__((visibility("default"))) void kiv_note_throw(const void* exception) noexcept;

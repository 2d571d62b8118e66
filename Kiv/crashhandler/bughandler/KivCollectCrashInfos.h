#pragma once

#include <ucontext.h>

#include <cstdint>

/// Fills the process's crash data with everything that a report needs: the stacks of all threads,
/// the crashed one's registers, the images that occur, and the crash log. Called by the signal
/// handler, with the context of the crash and the ports of threads that need not be stopped. Always true.
bool kiv_collect_crash_infos(const mcontext_t& context, const std::uint32_t* ports, std::uint32_t count) noexcept;

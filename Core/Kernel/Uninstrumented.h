#pragma once

/// Marks a function that runs in the suspension handler, at any instruction of any thread: no
/// sanitizer may add calls of its own to it, since they could stand in the middle of theirs.
/// It may call only functions that are marked likewise: those of its own file, and inline ones, of which
/// each copy is.
#if defined(__clang__)
#define KIV_UNINSTRUMENTED \
  __attribute__((no_sanitize("address", "thread", "undefined"), disable_sanitizer_instrumentation))
#else
#define KIV_UNINSTRUMENTED __attribute__((no_sanitize("address,thread,undefined")))
#endif

#pragma once

/// Whether a debugger is attached to this process. The kernel is asked once; the answer holds
/// for the life of the process. A query that fails is logged and counts as no debugger.
bool kiv_debugger_attached() noexcept;

#pragma once

/// Makes the crash log of the process's crash data, as people read it, and keeps it there
/// (KivCrashData::crashlog). Called when the collectors are done; always true. Fit for the crash path.
bool generateCrashLog() noexcept;

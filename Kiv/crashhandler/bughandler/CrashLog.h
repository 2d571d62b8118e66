#pragma once

#include <cstdint>

#include "Core/Memory/String.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"

class KivCrashData;
struct ReporterIdentity;

/// Makes the crash log of the process's crash data, as people read it, and keeps it there
/// (KivCrashData::crashlog). Called when the collectors are done; always true. Fit for the crash path.
bool generateCrashLog() noexcept;

/// The same text of whatever crash, as it reads at `now`, in milliseconds since 1970.
core::String crashLogOf(const KivCrashData& data, const ReporterIdentity& identity,
                        const KivBinaryImageCollector::Images& images, std::int64_t now) noexcept;

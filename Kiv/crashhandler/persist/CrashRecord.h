#pragma once

#include "Kiv/common/model/KivExpObj.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/ReporterIdentity.h"

/// What a machine had left when a crash's record was made. Bytes.
struct DeviceState {
  double freeMemory;
  double freeSpace;
  double freeSDCard;

  /// Fit for the crash path.
  static DeviceState now() noexcept;
};

/// The record of a crash, of this process or of one that has died: it is a function of what was found
/// and of who reports. All of it is fit for the crash path.
class CrashRecord {
 public:
  /// `device` is missing where nobody can tell any more; `uid` is the crash's own, "" for a new one.
  static KivExpObj of(const KivCrashData& data, const ReporterIdentity& identity,
                      const std::optional<DeviceState>& device, const core::String& uid) noexcept;

  /// Adds what the program told: key-values, scenes, attached log, extras.
  static void addUserData(KivExpObj& record, const KivCrashData& data, const ReporterIdentity& identity,
                          const std::optional<core::String>& attachLog) noexcept;

  /// What equal crashes have in common, in 32 hexadecimal digits: application, version, type and stack.
  static core::String hashOf(const KivCrashData& data, const ReporterIdentity& identity) noexcept;

  /// Makes a stored record of equal crashes, `stored`, tell of `fresh` too: the number of its attachments.
  static std::size_t merge(KivExpObj& stored, const KivExpObj& fresh) noexcept;
};

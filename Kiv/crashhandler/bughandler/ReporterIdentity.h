#pragma once

#include <cstdint>
#include <optional>

#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"

/// Who reports a crash and in what state it was: what log and record take from KivModelBase. A plain
/// value, which the journal keeps for the start that has to report in this process's place.
struct ReporterIdentity {
  using Text = std::optional<core::String>;

  Text appId, appVersion, bundleId, resourcePath, pIdentity, sdkVersion, userid, openudid;
  Text sessionId, gatewayIP, vorin, country, idfv;
  Text hardwareModel, osVer, cpuArch, processName, parentProcName;
  Text executableUUID, executableArch, executableBaseAddress;
  Text componentInfos;  ///< empty for none
  core::Dictionary<core::String> extras;
  std::int64_t processId = 0;
  std::int64_t parentProcId = 0;
  // Milliseconds, since 1970 but for the delta.
  std::int64_t startTime = 0;
  std::int64_t backGroundTime = 0;
  std::int64_t resumeTime = 0;
  std::int64_t lastRecordTime = 0;
  std::int64_t serverTimeDelta = 0;
  std::int64_t diskSize = 0;  ///< bytes
  std::int64_t memSize = 0;   ///< bytes
  bool isReet = false;
  bool isAppStore = false;
  bool namesOwnFunctions = false;  ///< KivStackCollector::needSymbol

  /// As it stands; fit for the crash path. What is not made yet is made, but for identifiers that take
  /// the keychain, unless `whole`.
  static ReporterIdentity current(bool whole = true) noexcept;

  // Milliseconds. What is read back from a damaged journal wraps.
  std::int64_t sinceLastRecord(std::int64_t now) const noexcept;  ///< or since the start, when nothing was recorded
  std::int64_t serverTime(std::int64_t time) const noexcept;

  template <class Self, class Each>
  static void fields(Self& self, Each&& each) noexcept {
    each(self.appId, self.appVersion, self.bundleId, self.resourcePath, self.pIdentity, self.sdkVersion, self.userid,
         self.openudid, self.sessionId, self.gatewayIP, self.vorin, self.country, self.idfv, self.hardwareModel,
         self.osVer, self.cpuArch, self.processName, self.parentProcName, self.executableUUID, self.executableArch,
         self.executableBaseAddress, self.processId, self.parentProcId, self.startTime, self.backGroundTime,
         self.resumeTime, self.lastRecordTime, self.serverTimeDelta, self.diskSize, self.memSize, self.isReet,
         self.isAppStore, self.namesOwnFunctions, self.componentInfos, self.extras);
  }
};

#include "Kiv/crashhandler/persist/CrashRecord.h"

#include <nettle/md5.h>

#include <array>

#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"

namespace {

using Text = std::optional<core::String>;

constexpr std::string_view kLogName = "crash.log";
constexpr std::string_view kTimesName = "crash_times.log";
constexpr std::string_view kAttachmentName = "attachment.log";
constexpr std::string_view kMessageCall = "objc_msgSend";

core::Data dataOf(std::string_view text) noexcept {
  return core::Data(text.data(), text.size());
}

KivExpAttachment attachmentOf(std::string_view name, core::Data content) noexcept {
  return {KivExpAttachment::kLogType, core::String(name), std::move(content)};
}

/// The stack of an exception tells more than that of the thread which ended on it.
core::String fingerprintOf(const KivCrashData& data) noexcept {
  if (data.ocThreadInfo()) {
    return data.ocThreadInfo()->getCurrThreadUUID();
  }
  return data.crashThreadInfo() ? data.crashThreadInfo()->getCurrThreadUUID() : core::String("err");
}

core::String callStackOf(const KivCrashData& data) noexcept {
  const core::String stack = data.crashStack();
  if (!data.objcMsgData() || stack.view().find(kMessageCall) == std::string_view::npos) {
    return stack;
  }
  const core::String called = core::kiv_format("%@ (%@)", kMessageCall, core::trimmed(*data.objcMsgData()));
  return core::replacedAll(stack, kMessageCall, called);
}

Text firstNonEmpty(const Text& first, const Text& second) noexcept {
  return first && !first->empty() ? first : second;
}

KivAppInfo programOf(const KivCrashData& data, const ReporterIdentity& identity) noexcept {
  KivAppInfo program;
  program.processName = firstNonEmpty(identity.processName, data.processName());
  program.processUUID = firstNonEmpty(identity.executableUUID, data.processUUID());
  program.cpuArchVersion = firstNonEmpty(identity.executableArch, data.processArch());
  program.processBaseAddr = firstNonEmpty(identity.executableBaseAddress, data.processAddr());
  program.version = identity.appVersion;
  return program;
}

core::Array<KivAppInfo> imagesOf(const KivCrashData& data) noexcept {
  core::Array<KivAppInfo> images;
  for (const CrashBinInfo& found : data.crashBinInfos()) {
    KivAppInfo& image = images.emplace();
    image.processName = found.processName;
    image.processUUID = found.processUUID;
    image.cpuArchVersion = found.processArch;
    image.processBaseAddr = found.processAddr;
  }
  return images;
}

core::Array<KivExpAttachment> attachmentsOf(const KivCrashData& data) noexcept {
  core::Array<KivExpAttachment> attachments;
  const Text log = data.crashlog();
  KivExpAttachment& crashLog = attachments.emplace();
  crashLog.type = KivExpAttachment::kLogType;
  crashLog.fileName = core::String(kLogName);
  if (log) {
    crashLog.data = dataOf(*log);
  }
  const auto* reported = data.isCustomizedException() ? KivCustomizedException::in(data) : nullptr;
  if (reported != nullptr && reported->attachmentLog()) {
    attachments.append(attachmentOf(kAttachmentName, dataOf(*reported->attachmentLog())));
  }
  return attachments;
}

const char* truth(bool value) noexcept {
  return value ? "true" : "false";
}

bool wasInBackground(const ReporterIdentity& identity) noexcept {
  const bool hasResumed = identity.resumeTime > identity.backGroundTime && identity.resumeTime > 0;
  return identity.backGroundTime != 0 && !hasResumed;
}

void setIfAny(KivExpObj::Texts& values, const char* key, const Text& value) noexcept {
  if (value) {
    values.set(key, *value);
  }
}

void addDevice(KivExpObj::Texts& values, const std::optional<DeviceState>& device) noexcept {
  if (device) {
    values.set("A9", core::kiv_format("%f", device->freeMemory));
    values.set("A11", core::kiv_format("%f", device->freeSpace));
    values.set("A10", core::kiv_format("%f", device->freeSDCard));
  }
}

KivExpObj::Texts valuesOf(const KivCrashData& data, const ReporterIdentity& identity,
                          const std::optional<DeviceState>& device) noexcept {
  const auto number = [](std::int64_t value) { return core::kiv_format("%lli", value); };
  KivExpObj::Texts values;
  addDevice(values, device);
  values.set("A2", number(identity.diskSize));
  values.set("A1", number(identity.memSize));
  setIfAny(values, "A5", identity.cpuArch);
  values.set("A13", core::String(truth(identity.isReet)));
  setIfAny(values, "A24", identity.osVer);
  setIfAny(values, "A23", identity.appVersion);
  values.set("A33", number(identity.processId));
  values.set("A31", number(identity.parentProcId));
  setIfAny(values, "A34", identity.processName);
  setIfAny(values, "A32", identity.parentProcName);
  values.set("F01", core::kiv_format("%@", identity.isAppStore ? 1 : 0));
  values.set("A36", core::String(truth(wasInBackground(identity))));
  setIfAny(values, "productIdentify", identity.pIdentity);
  setIfAny(values, "vorin", identity.vorin);
  values.set("A17", identity.country.value_or(core::String()));
  setIfAny(values, "A4", identity.idfv);
  if (data.registerDatas()) {
    values.set("A35", data.objcMsgData()
                          ? core::kiv_format("%@\nx-detect: %@\n", *data.registerDatas(), *data.objcMsgData())
                          : *data.registerDatas());
  }
  values.set("A18", number(identity.startTime));
  values.set("A19", number(identity.resumeTime));
  values.set("A20", number(identity.backGroundTime));
  return values;
}

core::String crashTypeOf(const KivCrashData& data) noexcept {
  const auto* reported = data.isCustomizedException() ? KivCustomizedException::in(data) : nullptr;
  return reported != nullptr ? reported->crashType() : core::String("100");
}

void addAll(KivExpObj::Texts& to, const core::Dictionary<core::String>& from) noexcept {
  for (const auto& [key, value] : from) {
    to.set(key, value);
  }
}

}  // namespace

DeviceState DeviceState::now() noexcept {
  return {static_cast<double>(KivDeviceUtil::getFreeMemory()), double{KivDeviceUtil::getFreeSpace()},
          double{KivDeviceUtil::getFreeSDCard()}};
}

KivExpObj CrashRecord::of(const KivCrashData& data, const ReporterIdentity& identity,
                          const std::optional<DeviceState>& device, const core::String& uid) noexcept {
  KivExpObj record;
  record.time = data.time();
  record.cashTime = identity.serverTime(data.time());
  record.crashType = crashTypeOf(data);
  record.exceptionType = data.type();
  record.excepitonAddress = data.address();
  record.setHash(hashOf(data, identity));
  record.expUid = uid.empty() ? core::generateUuid() : uid;
  if (data.crashThreadInfo()) {
    record.threadName = core::kiv_format("%d", static_cast<std::int32_t>(data.crashThreadInfo()->threadIndex));
  }
  record.callStack = callStackOf(data);
  record.causedBy = data.error().value_or(core::String("nil"));
  record.appInfo = programOf(data, identity);
  record.sessionInfo = KivAppSession{identity.sessionId, data.sessionEvents()};
  record.appInfoList = imagesOf(data);
  record.userId = identity.userid;
  record.deviceId = identity.openudid;
  record.gatewayIp = identity.gatewayIP;
  record.attachmentList = attachmentsOf(data);
  record.valueMap = valuesOf(data, identity, device);
  return record;
}

void CrashRecord::addUserData(KivExpObj& record, const KivCrashData& data, const ReporterIdentity& identity,
                              const Text& attachLog) noexcept {
  record.userMap = {};
  addAll(record.userMap, data.userMaps());
  if (attachLog) {
    record.valueMap.set("attachDatas", *attachLog);
  }
  addAll(record.valueMap, data.sceneData());
  addAll(record.valueMap, identity.extras);
  if (identity.componentInfos && !identity.componentInfos->empty()) {
    record.valueMap.set("C04_SDK_INFO", *identity.componentInfos);
  }
}

core::String CrashRecord::hashOf(const KivCrashData& data, const ReporterIdentity& identity) noexcept {
  const core::String text =
      core::kiv_format("%@%@%@%@", identity.appId, identity.appVersion, data.type(), fingerprintOf(data));
  md5_ctx context;
  md5_init(&context);
  md5_update(&context, text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
  std::array<std::uint8_t, MD5_DIGEST_SIZE> digest;
  md5_digest(&context, digest.size(), digest.data());
  return core::lowerHex({digest.data(), digest.size()});
}

std::size_t CrashRecord::merge(KivExpObj& stored, const KivExpObj& fresh) noexcept {
  stored.expUid = fresh.expUid;
  KivExpAttachment* times = nullptr;
  for (KivExpAttachment& attachment : stored.attachmentList) {
    times = attachment.fileName == kTimesName ? &attachment : times;
  }
  if (times != nullptr) {
    const core::Data old = times->data.value_or(core::Data());
    const std::string_view text(reinterpret_cast<const char*>(old.data()), old.size());
    times->data = dataOf(core::kiv_format("%@;%lli", text, fresh.cashTime));
    kiv_log_info("udpate creash times attch ");
  } else {
    stored.attachmentList.append(attachmentOf(kTimesName, dataOf(core::kiv_format("%lli", fresh.cashTime))));
    kiv_log_info("create creash times attch ");
  }
  const bool isReported = fresh.crashType == std::string_view("104") || fresh.crashType == std::string_view("204");
  stored.crashType = core::String(isReported ? "204" : "200");
  ++stored.dcount;
  return stored.attachmentList.size();
}

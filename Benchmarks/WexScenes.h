#pragma once

#include "Core/Text/Format.h"
#include "Kiv/common/model/zem/ExceptionUpload.h"

/// What the benchmarks of the tagged format encode, in sizes as reports have them.
namespace scenes {

using Texts = core::SortedMap<core::String>;

/// Entries "key 0000" and so on with values of about 30 bytes.
inline Texts texts(int count) {
  core::Array<Texts::Entry> entries;
  for (int i = 0; i < count; ++i) {
    entries.append({core::kiv_format("key %04d", i), core::kiv_format("the value of the entry %d", i * 7919)});
  }
  return Texts(std::move(entries));
}

inline kiv::AppInfo image(int number) {
  kiv::AppInfo info;
  info.processName = core::kiv_format("libcomponent%d.so.%d", number, number % 7);
  info.cpuArchVersion = "x86-64";
  info.processUUID = core::kiv_format("%08x5b1f4c3e9d2a7f60%08x", static_cast<unsigned>(number) * 2654435761U, number);
  info.processBaseAddr = core::kiv_format("%#018llx", 0x7f0000000000ULL + static_cast<unsigned>(number) * 0x200000ULL);
  info.version = "2.2.1.5";
  info.valueMap = {
      {"A39", core::kiv_format("%#018llx", 0x7f0000100000ULL + static_cast<unsigned>(number) * 0x200000ULL)},
      {"A40", core::kiv_format("/usr/lib/x86_64-linux-gnu/libcomponent%d.so.%d", number, number % 7)}};
  return info;
}

inline core::Array<kiv::AppInfo> images(int count) {
  core::Array<kiv::AppInfo> list;
  for (int i = 0; i < count; ++i) {
    list.append(image(i));
  }
  return list;
}

inline core::String stack(int thread) {
  core::StringBuilder text;
  for (int frame = 0; frame < 30; ++frame) {
    core::kiv_append(text, "%-4d libcomponent%d.so.%d           %#018llx _ZN9component7Subject5stepNEv%d + %d\n", frame,
                     frame, frame % 7, 0x7f0000000000ULL + static_cast<unsigned>(thread * frame) * 977ULL, frame,
                     thread * 16);
  }
  return text.str();
}

/// A crash of 64 threads with 30 frames each, 80 images and a log of 60 KB: some 270 KB.
inline kiv::ExceptionUpload crash() {
  kiv::ExceptionUpload record;
  record.crashType = "SIGSEGV";
  record.cashTime = 1700000000000;
  record.exceptionType = "SIGSEGV(SEGV_MAPERR)";
  record.causedBy = "SEGV_MAPERR";
  record.excepitonAddress = "0x0000000000000010";
  record.threadName = "main";
  record.callStack = stack(0);
  core::Array<Texts::Entry> stacks;
  for (int thread = 0; thread < 64; ++thread) {
    stacks.append({core::kiv_format("%d(worker %d)", thread, thread), stack(thread)});
  }
  record.allStacks = Texts(std::move(stacks));
  record.expUid = "5B1F4C3E-9D2A-4F60-8A11-0C5D7E9F1A2B";
  record.sessionInfo.sessionId = "0C5D7E9F-1A2B-4F60-8A11-5B1F4C3E9D2A";
  for (int i = 0; i < 20; ++i) {
    record.sessionInfo.events.append(core::kiv_format("event %d: a page was shown", i));
  }
  record.dcount = 1;
  record.userId = "user 1234567";
  record.deviceId = "8A115B1F-4C3E-4D2A-9F60-0C5D7E9F1A2B";
  record.appInfo = image(0);
  record.appInfoList = images(80);
  core::StringBuilder log;
  while (log.size() < 60000) {
    core::kiv_append(log, "2024-01-01 12:00:00.%03d <INFO> line %d of the log\n", log.size() % 1000, log.size());
  }
  kiv::Attachment attachment;
  attachment.fileName = "crash.log";
  attachment.data = core::Data(log.view().data(), log.size());
  record.attachmentList.append(attachment);
  record.valueMap = texts(20);
  record.userMap = texts(10);
  record.gatewayIp = "192.0.2.1";
  return record;
}

}  // namespace scenes

#include "Kiv/crashhandler/bughandler/JournalKeeper.h"

#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashDescription.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/ReporterIdentity.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Platform/Foundation/NSException.h"

namespace {

using UserDataKind = CrashUserData::Kind;

std::atomic<void (*)(JournalFieldWriter&)> settingsWriter{nullptr};

void writeIdentity(JournalFieldWriter& writer) noexcept {
  writer.put(ReporterIdentity::current(false));  // the rest comes when the model has made it
}

void writeImages(JournalFieldWriter& writer) noexcept {
  writer.put(KivBinaryImageCollector::sharedInstance().getAllBinarys());
}

void writeUserMaps(JournalFieldWriter& writer) noexcept {
  writer.put(KivCrashData::expData().userMaps());
}

void writeScenes(JournalFieldWriter& writer) noexcept {
  writer.put(KivCrashData::expData().sceneData());
}

void writeEvents(JournalFieldWriter& writer) noexcept {
  writer.put(KivCrashData::expData().sessionEvents());
}

void writeException(JournalFieldWriter& writer) noexcept {
  if (const KivCrashData::Exception exception = KivCrashData::expData().exp()) {
    ThrownException thrown{exception->name(), exception->reason(), {}, core::wallClockNanoseconds() / 1'000'000};
    for (const std::uintptr_t address : exception->callStackReturnAddresses()) {
      thrown.addresses.append(address);
    }
    writer.put(thrown);
  }
}

void keepImages() noexcept {
  CrashJournal::keep(JournalPart::kImages, writeImages);
}

void keepUserData(UserDataKind kind) noexcept {
  switch (kind) {
    case UserDataKind::kUserMaps:
      return CrashJournal::keep(JournalPart::kUserData, writeUserMaps);
    case UserDataKind::kScenes:
      return CrashJournal::keep(JournalPart::kScenes, writeScenes);
    case UserDataKind::kEvents:
      return CrashJournal::keep(JournalPart::kEvents, writeEvents);
  }
}

/// What a crash itself adds to the data follows from its facts.
bool isCrash() noexcept {
  return core::CrashOwner::isCurrentThread();
}

}  // namespace

void JournalKeeper::start(const core::String& directory) noexcept {
  if (CrashJournal::current() != nullptr) {
    return;
  }
  if (!CrashJournal::prepare(directory)) {
    kiv_log_warn("no journal in %@: a crash whose handling is cut short is lost", directory);
  }
  KivModelBase::getDefualtAnaModel().onChange([] {
    if (!isCrash()) {
      keepIdentity();
    }
  });
  KivCrashData::expData().onChange([](UserDataKind kind) {
    if (!isCrash()) {
      keepUserData(kind);
    }
  });
  KivBinaryImageCollector::sharedInstance().onChange(keepImages);
  KivBinaryImageCollector::sharedInstance().loadBinarys();
  keepAll();
}

void JournalKeeper::keepAll() noexcept {
  keepIdentity();
  keepImages();
  keepUserData(UserDataKind::kUserMaps);
  keepUserData(UserDataKind::kScenes);
  keepUserData(UserDataKind::kEvents);
  if (void (*const write)(JournalFieldWriter&) = settingsWriter) {
    keepSettings(write);
  }
  if (KivCrashData::expData().exp() != nullptr) {
    keepException();
  }
}

void JournalKeeper::keepIdentity() noexcept {
  CrashJournal::keep(JournalPart::kIdentity, writeIdentity);
}

void JournalKeeper::keepSettings(void (*write)(JournalFieldWriter&)) noexcept {
  settingsWriter = write;
  CrashJournal::keep(JournalPart::kSettings, write);
}

void JournalKeeper::keepException() noexcept {
  CrashJournal::keep(JournalPart::kException, writeException);
}

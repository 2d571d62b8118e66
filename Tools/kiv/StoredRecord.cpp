#include "Tools/kiv/StoredRecord.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "Core/Files/File.h"
#include "Tools/kiv/Document.h"
#include "Tools/kiv/StackLine.h"

namespace {

constexpr std::string_view kLog = "crash.log";
constexpr std::string_view kTimes = "crash_times.log";

struct Kind {
  std::string_view crashType;
  std::string_view name;
};

constexpr Kind kKinds[] = {{"100", "crash"},    {"102", "reported"}, {"103", "stall"},  {"104", "reported"},
                           {"106", "reported"}, {"107", "reported"}, {"200", "merged"}, {"204", "merged"}};

/// Times outside the calendar are not reckoned with.
constexpr std::int64_t kEndOfTime = 253'402'300'800'000;  // the year 10000

bool isTime(std::int64_t milliseconds) {
  return milliseconds > 0 && milliseconds < kEndOfTime;
}

std::optional<std::string> attachmentOf(const KivExpObj& record, std::string_view name) {
  for (const KivExpAttachment& attachment : record.attachmentList) {
    if (attachment.fileName && *attachment.fileName == name && attachment.data) {
      return std::string(textOf(attachment.data->span()));
    }
  }
  return std::nullopt;
}

}  // namespace

std::string cannotBeRead(int error) {
  // What core::readFile says of pipes and devices.
  return error == EINVAL ? "is no regular file" : std::string("cannot be read: ") + std::strerror(error);
}

core::Result<StoredRecord, RecordFault> readStoredRecord(const std::string& path) {
  const auto bytes = core::readFile(path);
  if (!bytes) {
    return RecordFault{bytes.error() == ENOENT, cannotBeRead(bytes.error())};
  }
  if (bytes->empty()) {
    return RecordFault{false, "is damaged: the file is empty"};
  }
  auto record = core::archive::unarchived<KivExpObj>(bytes->span());
  if (!record) {
    return RecordFault{false, std::string("is damaged: ") + record.error().reason};
  }
  return StoredRecord{std::move(*record), *bytes};
}

std::string kindOf(const KivExpObj& record) {
  const std::string code = textOf(record.crashType);
  const auto* kind =
      std::find_if(std::begin(kKinds), std::end(kKinds), [&](const Kind& known) { return known.crashType == code; });
  return kind != std::end(kKinds) ? std::string(kind->name) : code;
}

std::optional<std::string> logOf(const KivExpObj& record) {
  return attachmentOf(record, kLog);
}

std::string ownModuleOf(const KivExpObj& record) {
  return record.appInfo ? textOf(record.appInfo->processName) : std::string();
}

std::string firstOwnFrame(const KivExpObj& record) {
  const std::string stack = textOf(record.callStack);
  const std::string own = ownModuleOf(record);
  for (std::size_t at = 0; at < stack.size(); at = std::min(stack.find('\n', at), stack.size()) + 1) {
    const std::string_view line = std::string_view(stack).substr(at, stack.find('\n', at) - at);
    const auto frame = StackLine::parse(line);
    if (frame && !own.empty() && frame->module == own) {
      return std::string(line);
    }
  }
  return stack.substr(0, stack.find('\n'));
}

Occurrences occurrencesOf(const KivExpObj& record) {
  const std::string times = attachmentOf(record, kTimes).value_or("");
  Occurrences seen{1, record.time};
  const char* const end = times.data() + times.size();
  for (const char* at = times.data(); at < end; at = std::find(at, end, ';') + 1) {
    std::int64_t serverTime = 0;
    if (std::from_chars(at, end, serverTime).ec == std::errc() && isTime(serverTime)) {
      const bool isKnown = isTime(record.time) && isTime(record.cashTime);
      ++seen.count;
      seen.lastTime = std::max(seen.lastTime, serverTime - (isKnown ? record.cashTime - record.time : 0));
    }
  }
  seen.count = std::max<std::int64_t>(seen.count, record.dcount);
  return seen;
}

#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>

#include "Benchmarks/Report.pb.h"
#include "Benchmarks/WexScenes.h"

// The values of WexBenchmark in protobuf's format, by the calls that its users make.

namespace {

std::string text(std::string_view view) {
  return std::string(view);
}

void fill(google::protobuf::Map<std::string, std::string>& map, const scenes::Texts& from) {
  for (const auto& [key, value] : from) {
    map[key.str()] = value.str();
  }
}

void fill(report::AppInfo& info, const kiv::AppInfo& from) {
  info.set_processname(text(from.processName));
  info.set_cpuarchversion(text(from.cpuArchVersion));
  info.set_processuuid(text(from.processUUID));
  info.set_processbaseaddr(text(from.processBaseAddr));
  info.set_version(text(from.version));
  fill(*info.mutable_valuemap(), from.valueMap);
}

report::ExceptionUpload crash() {
  const kiv::ExceptionUpload from = scenes::crash();
  report::ExceptionUpload record;
  record.set_crashtype(text(from.crashType));
  record.set_cashtime(from.cashTime);
  record.set_exceptiontype(text(from.exceptionType));
  record.set_causedby(text(from.causedBy));
  record.set_excepitonaddress(text(from.excepitonAddress));
  record.set_threadname(text(from.threadName));
  record.set_callstack(text(from.callStack));
  fill(*record.mutable_allstacks(), from.allStacks);
  record.set_expuid(text(from.expUid));
  record.mutable_sessioninfo()->set_sessionid(text(from.sessionInfo.sessionId));
  for (const core::String& event : from.sessionInfo.events) {
    record.mutable_sessioninfo()->add_events(text(event));
  }
  record.set_dcount(from.dcount);
  record.set_userid(text(from.userId));
  record.set_deviceid(text(from.deviceId));
  fill(*record.mutable_appinfo(), from.appInfo);
  for (const kiv::AppInfo& info : from.appInfoList) {
    fill(*record.add_appinfolist(), info);
  }
  for (const kiv::Attachment& attachment : from.attachmentList) {
    report::Attachment& made = *record.add_attachmentlist();
    made.set_type(attachment.type);
    made.set_filename(text(attachment.fileName));
    made.set_data(attachment.data.data(), attachment.data.size());
  }
  fill(*record.mutable_valuemap(), from.valueMap);
  fill(*record.mutable_usermap(), from.userMap);
  record.set_gatewayip(text(from.gatewayIp));
  record.set_reserved20(from.reserved20);
  return record;
}

report::Map map() {
  report::Map made;
  fill(*made.mutable_entries(), scenes::texts(1000));
  return made;
}

report::AppInfos list() {
  report::AppInfos made;
  for (const kiv::AppInfo& info : scenes::images(10000)) {
    fill(*made.add_items(), info);
  }
  return made;
}

void setBytes(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

template <class Message>
void protobufEncode(benchmark::State& state, Message (*make)()) {
  const Message message = make();
  std::size_t size = 0;
  for (auto _ : state) {
    std::string out;
    message.SerializeToString(&out);
    benchmark::DoNotOptimize(out.data());
    size = out.size();
  }
  setBytes(state, size);
}

template <class Message>
void protobufDecode(benchmark::State& state, Message (*make)()) {
  const std::string bytes = make().SerializeAsString();
  for (auto _ : state) {
    Message message;
    message.ParseFromString(bytes);
    benchmark::DoNotOptimize(message);
  }
  setBytes(state, bytes.size());
}

/// With all of a message's memory from one arena.
template <class Message>
void protobufDecodeInArena(benchmark::State& state, Message (*make)()) {
  const std::string bytes = make().SerializeAsString();
  for (auto _ : state) {
    google::protobuf::Arena arena;
    auto* message = google::protobuf::Arena::CreateMessage<Message>(&arena);
    message->ParseFromString(bytes);
    benchmark::DoNotOptimize(message);
  }
  setBytes(state, bytes.size());
}

BENCHMARK_CAPTURE(protobufEncode, crash, crash);
BENCHMARK_CAPTURE(protobufDecode, crash, crash);
BENCHMARK_CAPTURE(protobufDecodeInArena, crash, crash);
BENCHMARK_CAPTURE(protobufEncode, map, map);
BENCHMARK_CAPTURE(protobufDecode, map, map);
BENCHMARK_CAPTURE(protobufDecodeInArena, map, map);
BENCHMARK_CAPTURE(protobufEncode, list, list);
BENCHMARK_CAPTURE(protobufDecode, list, list);
BENCHMARK_CAPTURE(protobufDecodeInArena, list, list);

}  // namespace

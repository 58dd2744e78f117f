// What the library's own code costs, on a transport that answers inside the call.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <orvel/OrvelDelegateClient.h>
#include <orvel/OrvelIntent.h>
#include <orvel/TarselMetricEvent.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Allocations.h"
#include "ByHand.h"
#include "InstantVesk.h"
#include "Table.h"
#include "parcel/OrvelResolveInfo.h"
#include "parcel/PackageInfo.h"
#include "parcel/RunningAppProcessInfo.h"
#include "parcel/StringArray.h"
#include "services/IDelegateService.h"
#include "services/Incoming.h"
#include "vesk/message/Owners.h"

namespace bench {
namespace {

using orvel::service_apis::Bundle;
using orvel::service_apis::IDelegateService;
using orvel::service_apis::OrvelDelegateClient;
using orvel::service_apis::OrvelIntent;
using orvel::service_apis::OrvelResolveInfo;
using orvel::service_apis::PackageInfo;
using orvel::service_apis::RecordArray;
using orvel::service_apis::RunningAppProcessInfo;
using orvel::service_apis::skip_header;
using orvel::service_apis::StringArray;
using orvel::service_apis::TarselMetricEvent;
using vesk::BufferPtr;
using vesk::PayloadPtr;

// The codes of the calls that are made here.
enum Code : unsigned int {
  kGetRunningAppProcesses = 2,
  kSendEvent = 2,  // of another service, which is not asked in the same benchmark
  kSendBroadcast = 27,
  kRegisterForBroadcast = 28,
  kGetDeviceName = 33,
  kRegisterForSecureSettings = 34,
};

// Longer than a string keeps without an allocation.
constexpr const char* kDeviceName = "Robin's kitchen display";

void countAllocations(benchmark::State& state, std::uint64_t before) {
  state.counters[kAllocationsCounter] =
      benchmark::Counter(static_cast<double>(allocations() - before), benchmark::Counter::kAvgIterations);
}

void deviceNameByLibrary(benchmark::State& state) {
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  if (!client.initialize() || client.getDeviceName() != kDeviceName) return state.SkipWithError("no name");
  const std::uint64_t before = allocations();
  for (auto _ : state) benchmark::DoNotOptimize(client.getDeviceName());
  countAllocations(state, before);
}

void deviceNameByHand(benchmark::State& state) {
  Connection connection{};
  char name[64];
  if (!open_connection(&connection) || device_name_by_hand(&connection, name, sizeof(name)) == 0) {
    return state.SkipWithError("no name");
  }
  if (std::strcmp(name, kDeviceName) != 0) return state.SkipWithError("a wrong name");
  const std::uint64_t before = allocations();
  for (auto _ : state) {
    device_name_by_hand(&connection, name, sizeof(name));
    benchmark::DoNotOptimize(name);
  }
  countAllocations(state, before);
}

constexpr int kStrings = 1000;

// A list as the package manager sends it.
vesk::Parcel manyStrings() {
  vesk::Parcel parcel;
  parcel.write_i32(kStrings);
  for (int n = 0; n < kStrings; ++n) parcel.write_utf16("com.example.application.number" + std::to_string(1000 + n));
  return parcel;
}

void setBytes(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(static_cast<std::int64_t>(size) * state.iterations());
}

void decodeStrings(benchmark::State& state) {
  const vesk::Parcel parcel = manyStrings();
  const BufferPtr buffer(bufferOf(parcel));
  for (auto _ : state) {
    rewind(buffer.get());
    const std::vector<std::string> strings = StringArray::read(buffer.get());
    if (strings.size() != kStrings) return state.SkipWithError("not all strings were read");
  }
  setBytes(state, parcel.bytes().size());
}

// What a codec of these bytes is measured against.
void copyBytes(benchmark::State& state, const std::vector<std::byte>& bytes) {
  std::vector<std::byte> copy(bytes.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), bytes.data(), copy.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  setBytes(state, copy.size());
}

void copyStrings(benchmark::State& state) {
  copyBytes(state, manyStrings().bytes());
}

constexpr int kExtras = 20;  // of each type
constexpr const char* kAction = "com.example.action.CHANGED";
constexpr const char* kData = "package:com.example.application";
constexpr const char* kPackage = "com.example.application";
constexpr const char* kClass = "com.example.application.Receiver";
constexpr const char* kText = "a text of no great length";

std::string extraName(int n) {
  return "com.example.extra.NUMBER_" + std::to_string(10 + n);
}

OrvelIntent sentIntent() {
  OrvelIntent intent;
  intent.action = kAction;
  intent.data = kData;
  intent.package = kPackage;
  intent.component = {kPackage, kClass};
  for (int n = 0; n < kExtras; ++n) {
    intent.extras.put(extraName(n), n);
    intent.extras.put(extraName(n), 1LL * n);
    intent.extras.put(extraName(n), kText);
  }
  return intent;
}

// The same intent as services send it, which is not how they get it, with so many extras of each type.
void writeReceivedIntent(vesk::Parcel& parcel, int extras) {
  parcel.write_i32(1);
  parcel.write_i32(1);  // a length, of which only the sign counts
  for (const char* text : {kAction, kData, "", kPackage}) parcel.write_utf16(text);
  parcel.write_i32(1);
  for (const char* text : {kPackage, kClass}) parcel.write_utf16(text);
  parcel.write_i32(1);
  parcel.write_i32(3 * extras);
  for (int n = 0; n < extras; ++n) {
    parcel.write_utf16(extraName(n));
    parcel.write_i32(1);
    parcel.write_i32(n);
    parcel.write_utf16(extraName(n));
    parcel.write_i32(6);
    parcel.write_i64(n);
    parcel.write_utf16(extraName(n));
    parcel.write_i32(0);
    parcel.write_utf16(kText);
  }
}

void encodeIntent(benchmark::State& state) {
  const OrvelIntent intent = sentIntent();
  const PayloadPtr payload(vesk_payload_alloc());
  for (auto _ : state) {
    rewind(payload.get());
    if (!intent.write(payload.get())) return state.SkipWithError("the intent was not written");
  }
  setBytes(state, bytesOf(payload.get()).size());
}

void decodeIntent(benchmark::State& state) {
  vesk::Parcel parcel;
  writeReceivedIntent(parcel, kExtras);
  const BufferPtr buffer(bufferOf(parcel));
  for (auto _ : state) {
    rewind(buffer.get());
    const OrvelIntent intent = OrvelIntent::read(buffer.get());
    if (intent.extras.size() != 2 * kExtras) return state.SkipWithError("not all extras were read");
  }
  setBytes(state, parcel.bytes().size());
}

void copySentIntent(benchmark::State& state) {
  const PayloadPtr payload(vesk_payload_alloc());
  sentIntent().write(payload.get());
  copyBytes(state, bytesOf(payload.get()));
}

void copyReceivedIntent(benchmark::State& state) {
  vesk::Parcel parcel;
  writeReceivedIntent(parcel, kExtras);
  copyBytes(state, parcel.bytes());
}

// ---- Packages and processes ----

std::string packageName(int n) {
  return "com.example.application.number" + std::to_string(10'000 + n);
}

vesk::Parcel receivers(int count) {
  vesk::Parcel parcel;
  parcel.write_i32(count);
  for (int n = 0; n < count; ++n) {
    for (int mark = 0; mark < 4; ++mark) parcel.write_i32(1);
    parcel.write_utf16(packageName(n));
    parcel.write_utf16(kClass);
    for (int member = 0; member < 4; ++member) parcel.write_i32(member);
  }
  return parcel;
}

// Every tenth in the foreground, of two packages each.
vesk::Parcel processes(int count) {
  vesk::Parcel parcel;
  parcel.write_i32(count);
  for (int n = 0; n < count; ++n) {
    parcel.write_i32(1);
    parcel.write_utf16(packageName(n) + ":remote");
    for (const int word : {n, n, 2}) parcel.write_i32(word);
    for (const int package : {n, n + 1}) parcel.write_utf16(packageName(package));
    for (const int word : {0, 0, n % 10 == 0 ? 100 : 400, 0, 0, 0}) parcel.write_i32(word);
    for (const char* text : {kPackage, kClass}) parcel.write_utf16(text);
    for (const int word : {0, 0, 1}) parcel.write_i32(word);
    parcel.write_i64(n);
  }
  return parcel;
}

constexpr int kMetadata = 30;  // as many as are read

vesk::Parcel package() {
  vesk::Parcel parcel;
  for (int mark = 0; mark < 2; ++mark) parcel.write_i32(1);
  parcel.write_utf16(kPackage);
  parcel.write_i32(1234);
  parcel.write_utf16("1.2.34");
  for (int time = 0; time < 2; ++time) parcel.write_i64(1'795'000'000'000);
  for (int mark = 0; mark < 2; ++mark) parcel.write_i32(1);
  for (int member = 0; member < 9; ++member) parcel.write_utf16(packageName(member));
  for (int list = 0; list < 3; ++list) {
    parcel.write_i32(1);
    parcel.write_utf16(packageName(list));
  }
  for (int member = 0; member < 10; ++member) parcel.write_i32(member);
  for (int member = 0; member < 3; ++member) parcel.write_utf16(packageName(member));
  for (const int word : {0, 1, 1, kMetadata}) parcel.write_i32(word);
  for (int n = 0; n < kMetadata; ++n) {
    parcel.write_utf16(extraName(n));
    parcel.write_i32(n % 2 == 0 ? 1 : 0);
    if (n % 2 == 0) {
      parcel.write_i32(n);
    } else {
      parcel.write_utf16(kText);
    }
  }
  return parcel;
}

// Decodes `count` records by `read`, which says whether it found them all.
void decodeRecords(benchmark::State& state, const vesk::Parcel& parcel, int count, bool (*read)(vesk_buffer*, int)) {
  const BufferPtr buffer(bufferOf(parcel));
  for (auto _ : state) {
    rewind(buffer.get());
    if (!read(buffer.get(), count)) return state.SkipWithError("not all records were read");
  }
  setBytes(state, parcel.bytes().size());
  state.SetItemsProcessed(count * state.iterations());
  rewind(buffer.get());
  const Weighing weighing;
  read(buffer.get(), count);
  state.counters[kBytesCounter] = static_cast<double>(Weighing::peak());
}

void copyRecords(benchmark::State& state, const vesk::Parcel& parcel, int count) {
  copyBytes(state, parcel.bytes());
  state.SetItemsProcessed(count * state.iterations());
  state.counters[kBytesCounter] = static_cast<double>(parcel.bytes().size());
}

template <typename Record>
bool readArray(vesk_buffer* buffer, int count) {
  typename RecordArray<Record>::Records records;
  return RecordArray<Record>::read(buffer, records) && records.size() == static_cast<std::size_t>(count);
}

bool readPackage(vesk_buffer* buffer, int /*count*/) {
  PackageInfo info;
  return PackageInfo::read(buffer, info) && info.applicationInfo.metaData.size() == kMetadata;
}

// Registers decoding and copying of so many records, and adds the row that compares them.
void addRecords(std::vector<Row>& rows, const std::string& name, const vesk::Parcel& parcel, int count,
                bool (*read)(vesk_buffer*, int)) {
  benchmark::RegisterBenchmark(("decode " + name).c_str(), decodeRecords, parcel, count, read);
  benchmark::RegisterBenchmark(("copy " + name).c_str(), copyRecords, parcel, count);
  rows.push_back({"decoding " + name + (count > 1 ? ", each : memcpy" : " : memcpy"), "decode " + name, "copy " + name,
                  Quantity::kNanosecondsEach, ""});
}

// Adds the rows of one kind of array.
void addArrays(std::vector<Row>& rows, const std::string& kind, vesk::Parcel (*make)(int),
               bool (*read)(vesk_buffer*, int)) {
  for (const auto& [text, count] : {std::pair("10", 10), {"100", 100}, {"1,000", 1000}, {"10,000", 10'000}}) {
    addRecords(rows, std::string(text) + " " + kind, make(count), count, read);
  }
  const std::string subject = "decode 10,000 " + kind;
  const std::string copy = "copy 10,000 " + kind;
  rows.push_back({"  each of 10,000 : of 10", subject, "decode 10 " + kind, Quantity::kNanosecondsEach, "the same"});
  rows.push_back({"  10,000 by bytes : memcpy", subject, copy, Quantity::kMegabytesPerSecond, ""});
  rows.push_back({"  10,000, peak of the heap : the reply", subject, copy, Quantity::kBytes, ""});
}

constexpr int kProcesses = 1000;

// Asks the client about the processes with `ask`, which says whether the answer is right.
void askAboutProcesses(benchmark::State& state, bool (*ask)(OrvelDelegateClient&)) {
  answer(kGetRunningAppProcesses, processes(kProcesses));
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  if (!client.initialize()) return state.SkipWithError("no client");
  for (auto _ : state) {
    if (!ask(client)) return state.SkipWithError("a wrong answer");
  }
}

bool askForegroundPackages(OrvelDelegateClient& client) {
  std::vector<std::string> packages;
  return client.getForegroundPackages(packages) && packages.size() == kProcesses / 10 * 2;
}

bool askLastProcess(OrvelDelegateClient& client) {
  static const std::string kLast = packageName(kProcesses);
  bool found = false;
  bool focused = false;
  int importance = 0;
  return client.getAppProcessState(kLast, found, importance, focused) && found && importance == 400;
}

// ---- Sending an intent ----

// Ten numbers and ten texts.
OrvelIntent broadcastOfTwenty() {
  OrvelIntent intent = sentIntent();
  intent.extras = {};
  for (int n = 0; n < 10; ++n) {
    intent.extras.put(extraName(n), n);
    intent.extras.put(extraName(n), kText);
  }
  return intent;
}

void broadcastByLibrary(benchmark::State& state) {
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  const OrvelIntent intent = broadcastOfTwenty();
  if (!client.initialize() || !client.broadcastIntent(&intent)) return state.SkipWithError("not sent");
  const std::uint64_t before = allocations();
  for (auto _ : state) benchmark::DoNotOptimize(client.broadcastIntent(&intent));
  countAllocations(state, before);
}

void broadcastByHand(benchmark::State& state) {
  // Maps like those of the extras, so that they come in the same order.
  std::unordered_map<std::string, std::int32_t> numbers;
  std::unordered_map<std::string, std::string> texts;
  for (int n = 0; n < 10; ++n) {
    numbers.emplace(extraName(n), n);
    texts.emplace(extraName(n), kText);
  }
  Broadcast broadcast{kAction, kData, kPackage, kClass, {}, {}};
  std::transform(numbers.begin(), numbers.end(), broadcast.numbers, [](const auto& extra) {
    return Broadcast::Number{extra.first.c_str(), extra.second};
  });
  std::transform(texts.begin(), texts.end(), broadcast.texts, [](const auto& extra) {
    return Broadcast::Text{extra.first.c_str(), extra.second.c_str()};
  });
  const PayloadPtr by_library(vesk_payload_alloc());
  const PayloadPtr by_hand(vesk_payload_alloc());
  broadcastOfTwenty().write(by_library.get());
  write_broadcast_by_hand(by_hand.get(), &broadcast);
  if (bytesOf(by_library.get()) != bytesOf(by_hand.get())) return state.SkipWithError("the bytes differ");

  Connection connection{};
  if (!open_connection(&connection) || !broadcast_by_hand(&connection, &broadcast)) {
    return state.SkipWithError("not sent");
  }
  const std::uint64_t before = allocations();
  for (auto _ : state) benchmark::DoNotOptimize(broadcast_by_hand(&connection, &broadcast));
  countAllocations(state, before);
}

// ---- Registrations and broadcasts ----

void* runtime() {
  void* runtime = nullptr;
  vesk_get_runtime(&runtime);
  return runtime;
}

// A fresh proxy with so many registrations.
struct Registered {
  explicit Registered(int count) {
    for (int n = 0; n < count; ++n) add();
  }
  void add() {
    good = delegate.registerForSecureSettings("example_setting", [](const std::string&, const std::string&) {}) && good;
  }

  IDelegateService delegate{runtime()};
  bool good = true;
};

void registerOneMore(benchmark::State& state, int present) {
  Registered registered(present);
  for (auto _ : state) registered.add();
  if (!registered.good) state.SkipWithError("a registration failed");
}

// The time of one registration among `count`, from the new bind to the end of the replay.
void replay(benchmark::State& state, int count) {
  const Registered registered(count);
  __android_log_set_minimum_priority(ANDROID_LOG_FATAL);  // a death logs an error
  for (auto _ : state) {
    restartService();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - boundAt()).count() / count);
    if (endpoints().size() != static_cast<std::size_t>(count)) state.SkipWithError("not everything was replayed");
  }
  __android_log_set_minimum_priority(ANDROID_LOG_WARN);
}

// What services send to an endpoint begins like this.
vesk::Parcel toEndpoint() {
  vesk::Parcel message;
  for (const int word : {0, -1, 0x53595354}) message.write_i32(word);
  message.write_utf16("com.example.IReceiver");
  return message;
}

BufferPtr smallBroadcast() {
  vesk::Parcel message = toEndpoint();
  writeReceivedIntent(message, 1);
  return BufferPtr(bufferOf(message));
}

void dispatchBroadcast(benchmark::State& state) {
  IDelegateService delegate(runtime());
  int received = 0;
  const auto callback = [&](const std::string&, const std::string&, const Bundle& extras) {
    received += extras.get(extraName(0), std::string()) == kText ? 1 : 0;
  };
  if (!delegate.registerForBroadcastWithDataTypeOrScheme(kAction, {}, {}, callback)) {
    return state.SkipWithError("the registration failed");
  }
  vesk_endpoint* endpoint = endpoints().back();
  const BufferPtr message = smallBroadcast();
  for (auto _ : state) {
    rewind(message.get());
    endpoint->fn->endpoint_call_oneway(runtime(), endpoint, 1, nullptr, message.get());
  }
  if (received != state.iterations()) state.SkipWithError("not every broadcast arrived");
}

void decodeBroadcast(benchmark::State& state) {
  const BufferPtr message = smallBroadcast();
  for (auto _ : state) {
    rewind(message.get());
    skip_header(message.get());
    benchmark::DoNotOptimize(OrvelIntent::read(message.get()));
  }
}

// ---- The assistant and metrics ----

// Ten values of each of the kinds that a program fills.
TarselMetricEvent metricEvent() {
  TarselMetricEvent event;
  event.header1 = kPackage;
  event.header2 = "PlaybackSession";
  for (int n = 10; n < 20; ++n) {
    const std::string number = std::to_string(n);
    std::string text = kText;
    event.addStringEvent("Playback.Stream" + number + ".Codec", text);
    event.addLongEvent("Playback.Stream" + number + ".BytesReceived", 1'000'000LL * n);
    event.addDoubleEvent("Playback.Stream" + number + ".BufferedSeconds", 0.25 * n);
    event.addTimestampEvent("Playback.Stream" + number + ".StartedAt", 1'795'000'000'000 + n);
    event.addBooleanEvent("Playback.Stream" + number + ".Interrupted", n % 2 == 0);
  }
  return event;
}

void encodeMetricEvent(benchmark::State& state) {
  const TarselMetricEvent event = metricEvent();
  const PayloadPtr payload(vesk_payload_alloc());
  for (auto _ : state) {
    rewind(payload.get());
    if (!event.write(payload.get())) return state.SkipWithError("the event was not written");
  }
  setBytes(state, bytesOf(payload.get()).size());
}

void copyMetricEvent(benchmark::State& state) {
  const PayloadPtr payload(vesk_payload_alloc());
  metricEvent().write(payload.get());
  copyBytes(state, bytesOf(payload.get()));
}

// An event and its result, which comes as soon as the event is accepted.
void sendEvent(benchmark::State& state) {
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  vesk::Parcel accepted;
  accepted.write_i32(1);
  answer(kSendEvent, accepted);
  vesk::Parcel message = toEndpoint();
  for (const int word : {1, 0}) message.write_i32(word);
  const BufferPtr result(bufferOf(message));
  int successes = 0;
  const auto callback = [&](const std::string& name, bool /*retryable*/) { successes += name == "SUCCESS" ? 1 : 0; };
  if (!client.initialize()) return state.SkipWithError("no client");
  for (auto _ : state) {
    if (!client.sendEvent("Example.Buttons", "Pressed", "1.0", "", "", "", "", false, kText, callback)) break;
    vesk_endpoint* endpoint = endpoints().back();
    rewind(result.get());
    endpoint->fn->endpoint_call_oneway(runtime(), endpoint, 1, nullptr, result.get());
    dropEndpoints();
  }
  if (successes != state.iterations()) state.SkipWithError("not every event succeeded");
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  vesk::Parcel device_name;
  device_name.write_utf16(kDeviceName);
  answer(kGetDeviceName, device_name);
  for (const unsigned int code : {kSendBroadcast, kRegisterForBroadcast, kRegisterForSecureSettings}) answer(code, {});
  benchmark::RegisterBenchmark("name by library", deviceNameByLibrary);
  benchmark::RegisterBenchmark("name by hand", deviceNameByHand);
  benchmark::RegisterBenchmark("broadcast by library", broadcastByLibrary);
  benchmark::RegisterBenchmark("broadcast by hand", broadcastByHand);
  benchmark::RegisterBenchmark("decode strings", decodeStrings);
  benchmark::RegisterBenchmark("copy strings", copyStrings);
  benchmark::RegisterBenchmark("encode intent", encodeIntent);
  benchmark::RegisterBenchmark("copy sent intent", copySentIntent);
  benchmark::RegisterBenchmark("decode intent", decodeIntent);
  benchmark::RegisterBenchmark("copy received intent", copyReceivedIntent);
  benchmark::RegisterBenchmark("dispatch", dispatchBroadcast);
  benchmark::RegisterBenchmark("decode broadcast", decodeBroadcast);
  // A fixed count: the list grows with every iteration.
  benchmark::RegisterBenchmark("register after 0", registerOneMore, 0)->Iterations(500);
  benchmark::RegisterBenchmark("register after 10000", registerOneMore, 10'000)->Iterations(500);
  // Every iteration waits for the pause after a death.
  benchmark::RegisterBenchmark("replay 100", replay, 100)->UseManualTime()->Iterations(10);
  benchmark::RegisterBenchmark("replay 1000", replay, 1'000)->UseManualTime()->Iterations(2);
  benchmark::RegisterBenchmark("replay 10000", replay, 10'000)->UseManualTime()->Iterations(1);
  std::vector<Row> rows = {
      {"getDeviceName() : the same in C by hand", "name by library", "name by hand", Quantity::kNanoseconds,
       "at most 1.25 x"},
      {"  heap allocations", "name by library", "name by hand", Quantity::kAllocations, "at most +1, the result"},
      {"broadcastIntent(), 20 extras : in C by hand", "broadcast by library", "broadcast by hand",
       Quantity::kNanoseconds, ""},
      {"  heap allocations", "broadcast by library", "broadcast by hand", Quantity::kAllocations, ""},
      {"decoding 1,000 strings : memcpy", "decode strings", "copy strings", Quantity::kMegabytesPerSecond, ""},
      {"encoding an intent, 60 extras : memcpy", "encode intent", "copy sent intent", Quantity::kMegabytesPerSecond,
       ""},
      {"decoding an intent, 60 extras : memcpy", "decode intent", "copy received intent", Quantity::kMegabytesPerSecond,
       ""},
      {"a broadcast to its callback : decoding it", "dispatch", "decode broadcast", Quantity::kNanoseconds, ""},
      {"one more registration, to 10,000 : to none", "register after 10000", "register after 0", Quantity::kNanoseconds,
       "the same"},
      {"replay of 1,000, each : of 100, each", "replay 1000", "replay 100", Quantity::kNanoseconds, "the same"},
      {"replay of 10,000, each : of 100, each", "replay 10000", "replay 100", Quantity::kNanoseconds, "the same"}};
  addArrays(rows, "receivers", receivers, readArray<OrvelResolveInfo>);
  addArrays(rows, "processes", processes, readArray<RunningAppProcessInfo>);
  addRecords(rows, "a package", package(), 1, readPackage);
  rows.push_back({"  by bytes : memcpy", "decode a package", "copy a package", Quantity::kMegabytesPerSecond, ""});
  rows.push_back({"  peak of the heap : the reply", "decode a package", "copy a package", Quantity::kBytes, ""});
  benchmark::RegisterBenchmark("foreground", askAboutProcesses, askForegroundPackages);
  benchmark::RegisterBenchmark("process state", askAboutProcesses, askLastProcess);
  for (const auto& [method, query] :
       {std::pair("getForegroundPackages()", "foreground"), {"getAppProcessState()", "process state"}}) {
    rows.push_back({std::string(method) + ", 1,000 processes : decoding", query, "decode 1,000 processes",
                    Quantity::kMicroseconds, ""});
  }
  benchmark::RegisterBenchmark("encode metrics", encodeMetricEvent);
  benchmark::RegisterBenchmark("copy metrics", copyMetricEvent);
  rows.push_back({"encoding a metric event, 50 fields : memcpy", "encode metrics", "copy metrics",
                  Quantity::kMegabytesPerSecond, ""});
  benchmark::RegisterBenchmark("event", sendEvent);
  rows.push_back(
      {"sendEvent() and its result : getDeviceName()", "event", "name by library", Quantity::kNanoseconds, ""});
  return runTable(argc, argv, rows);
}

// What the library's own code costs, on a transport that answers inside the call.
#include <benchmark/benchmark.h>
#include <orvel/OrvelDelegateClient.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Allocations.h"
#include "DeviceNameByHand.h"
#include "InstantVesk.h"
#include "Table.h"
#include "parcel/StringArray.h"

namespace bench {
namespace {

using orvel::service_apis::OrvelDelegateClient;
using orvel::service_apis::StringArray;

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
  vesk_buffer* buffer = bufferOf(parcel);
  for (auto _ : state) {
    rewind(buffer);
    const std::vector<std::string> strings = StringArray::read(buffer);
    if (strings.size() != kStrings) return state.SkipWithError("not all strings were read");
  }
  setBytes(state, parcel.bytes().size());
  vesk_buffer_free(buffer);
}

void copyBytes(benchmark::State& state) {
  const vesk::Parcel parcel = manyStrings();
  std::vector<std::byte> copy(parcel.bytes().size());
  for (auto _ : state) {
    std::memcpy(copy.data(), parcel.bytes().data(), copy.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  setBytes(state, copy.size());
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("name by library", bench::deviceNameByLibrary);
  benchmark::RegisterBenchmark("name by hand", bench::deviceNameByHand);
  benchmark::RegisterBenchmark("decode", bench::decodeStrings);
  benchmark::RegisterBenchmark("memcpy", bench::copyBytes);
  const std::string title = "getDeviceName() : the same in C by hand";
  return bench::runTable(
      argc, argv,
      {{title, "name by library", "name by hand", bench::Quantity::kNanoseconds, "at most 1.25 x"},
       {"  heap allocations", "name by library", "name by hand", bench::Quantity::kAllocations,
        "at most +1, the result"},
       {"decoding 1,000 strings : memcpy", "decode", "memcpy", bench::Quantity::kMegabytesPerSecond, ""}});
}

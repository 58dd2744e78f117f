// Runs the registered benchmarks and prints them as rows that compare two of them each.
#pragma once

#include <string>
#include <vector>

namespace bench {

// What a row compares: the time of one iteration in this unit or of one item, the rate of bytes or of items, or the
// heap allocations or bytes of one iteration.
enum class Quantity {
  kNanoseconds,
  kMicroseconds,
  kMilliseconds,
  kNanosecondsEach,
  kMegabytesPerSecond,
  kPerSecond,
  kAllocations,
  kBytes
};

// The counters under which a benchmark reports its allocations, and its bytes.
constexpr const char* kAllocationsCounter = "allocations";
constexpr const char* kBytesCounter = "bytes";

struct Row {
  std::string title;
  std::string subject;    // the benchmark by its registered name
  std::string reference;  // what it is compared with; empty for none
  Quantity quantity;
  std::string aim;  // as printed; empty for none
};

// Many short runs of every benchmark in random order, so that a disturbance of the machine hits subject and
// reference alike; the table shows medians. The command line may add the flags of Google Benchmark. Returns the exit
// status.
int runTable(int argc, char** argv, const std::vector<Row>& rows);

}  // namespace bench

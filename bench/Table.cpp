#include "Table.h"

#include <android/log.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>

namespace bench {
namespace {

struct Results {
  std::vector<double> seconds, bytes_per_second, items_per_second, allocations, bytes;
  std::string error;
};

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      Results& results = m_results[run.run_name.function_name];
      if (run.error_occurred) {
        results.error = run.error_message;
        continue;
      }
      results.seconds.push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
      keep(run, "bytes_per_second", results.bytes_per_second);
      keep(run, "items_per_second", results.items_per_second);
      keep(run, kAllocationsCounter, results.allocations);
      keep(run, kBytesCounter, results.bytes);
    }
  }

  void print(const Row& row) const {
    if (m_results.count(row.subject) == 0) return;  // filtered out
    const std::optional<double> subject = value(row.subject, row.quantity);
    const std::optional<double> reference = value(row.reference, row.quantity);
    std::printf("%-52s %14s %14s %8s  %s\n", row.title.c_str(), text(subject, row.quantity).c_str(),
                text(reference, row.quantity).c_str(), comparison(subject, reference, row.quantity).c_str(),
                row.aim.c_str());
    for (const std::string& name : {row.subject, row.reference}) {
      const auto found = m_results.find(name);
      if (found != m_results.end() && !found->second.error.empty()) {
        std::printf("  %s: %s\n", name.c_str(), found->second.error.c_str());
      }
    }
  }

 private:
  static void keep(const Run& run, const char* counter, std::vector<double>& values) {
    if (const auto found = run.counters.find(counter); found != run.counters.end()) values.push_back(found->second);
  }

  [[nodiscard]] std::optional<double> value(const std::string& name, Quantity quantity) const {
    const auto found = m_results.find(name);
    if (found == m_results.end()) return std::nullopt;
    const Results& results = found->second;
    const bool of_items = quantity == Quantity::kPerSecond || quantity == Quantity::kNanosecondsEach;
    const std::vector<double>& values = quantity == Quantity::kMegabytesPerSecond ? results.bytes_per_second
                                        : of_items                                ? results.items_per_second
                                        : quantity == Quantity::kAllocations      ? results.allocations
                                        : quantity == Quantity::kBytes            ? results.bytes
                                                                                  : results.seconds;
    if (values.empty()) return std::nullopt;
    return quantity == Quantity::kNanosecondsEach ? 1 / median(values) : median(values);
  }

  static std::string text(std::optional<double> value, Quantity quantity) {
    if (!value) return "-";
    switch (quantity) {
      case Quantity::kNanoseconds:
        return fixed(*value * 1e9, 0) + " ns";
      case Quantity::kNanosecondsEach:
        return fixed(*value * 1e9, *value < 1e-7 ? 1 : 0) + " ns";
      case Quantity::kMicroseconds:
        return fixed(*value * 1e6, 1) + " us";
      case Quantity::kMilliseconds:
        return fixed(*value * 1e3, 2) + " ms";
      case Quantity::kMegabytesPerSecond:
        return fixed(*value / 1e6, 0) + " MB/s";
      case Quantity::kPerSecond:
        return fixed(*value, 0) + " /s";
      case Quantity::kAllocations:
        return fixed(*value, 2);
      case Quantity::kBytes:
        return fixed(*value, 0) + " B";
    }
    return "-";
  }

  static std::string comparison(std::optional<double> subject, std::optional<double> reference, Quantity quantity) {
    if (!subject || !reference) return "";
    if (quantity == Quantity::kAllocations) return (*subject < *reference ? "" : "+") + fixed(*subject - *reference, 2);
    return fixed(*subject / *reference, 3) + " x";
  }

  static std::string fixed(double value, int digits) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
  }

  std::map<std::string, Results> m_results;
};

}  // namespace

int runTable(int argc, char** argv, const std::vector<Row>& rows) {
  // Filtered as a program in the field has it; otherwise most of the time would go into writing the lines.
  __android_log_set_minimum_priority(ANDROID_LOG_WARN);
  // In front of the caller's own flags, which win.
  std::vector<std::string> flags = {argv[0], "--benchmark_enable_random_interleaving=true",
                                    "--benchmark_repetitions=51", "--benchmark_min_time=0.02"};
  flags.insert(flags.end(), argv + 1, argv + argc);
  std::vector<char*> arguments;
  arguments.reserve(flags.size());
  for (std::string& flag : flags) arguments.push_back(flag.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  for (const Row& row : rows) collector.print(row);
  return 0;
}

}  // namespace bench

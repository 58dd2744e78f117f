// Whole programs, from their start to their end.
#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace bench {

// Runs a program until the benchmark has enough, its output thrown away. A name without a slash is one of this build.
void runProgram(benchmark::State& state, const std::vector<std::string>& words);

}  // namespace bench

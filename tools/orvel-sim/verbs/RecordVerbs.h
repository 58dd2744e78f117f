// The verbs of orvel-sim that record the traffic and make use of recordings.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace orvel::sim {

struct RecordOptions {
  std::string file;  // empty: nothing is recorded
  bool replace = false;
  bool unmasked = false;
};

// To the view of the traffic.
void addRecordOptions(CLI::App& traffic, RecordOptions& options);

// Records from so many of the newest entries on, until interrupted or, if `past`, until there are no more. Throws as
// orders do, and std::runtime_error when the file cannot be written.
void recordTraffic(const RecordOptions& options, std::uint64_t last, bool past);

// Both throw ScenarioError for what is wrong with a recording; a replay's exit status goes into `status`.
void addReplayVerb(CLI::App& app, int& status);
void addConvertVerb(CLI::App& app);

}  // namespace orvel::sim

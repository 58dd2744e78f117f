// The options that choose entries of the traffic, the same for all verbs that take some.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <deque>
#include <memory>

#include "device/TrafficFilter.h"
#include "device/Wire.h"

namespace orvel::sim {

// What the options are read into.
std::shared_ptr<TrafficConditions> addTrafficConditions(CLI::App& verb);

// The option --last, which takes no number below 1.
CLI::Option* addLast(CLI::App& verb, std::uint64_t& last, const std::string& about);

// Throws ScenarioError, with the name that may be meant.
TrafficFilter filterOf(const TrafficConditions& conditions);

// Keeps the newest entries of those that come, and the gaps (recordingGap) between them.
class Newest {
 public:
  // `tellsBeginning`: a gap in front of all is kept too, as long as no entry had to go.
  explicit Newest(std::uint64_t most, bool tellsBeginning = true) : m_most(most), m_tellsBeginning(tellsBeginning) {}

  void add(Json line);
  std::deque<Json> take();

 private:
  std::uint64_t m_most;
  bool m_tellsBeginning;
  std::deque<Json> m_lines;
  std::uint64_t m_entries = 0;
};

}  // namespace orvel::sim

// Writes a recording of what the device hands over.
#pragma once

#include <cstdint>
#include <string>

#include "device/Recording.h"
#include "device/TrafficFilter.h"
#include "device/Wire.h"
#include "tools/orvel-sim/host/OutputFile.h"
#include "tools/orvel-sim/verbs/TrafficConditions.h"

namespace orvel::sim {

struct RecordOptions {
  std::string file;  // empty: nothing is recorded
  bool replace = false;
  bool unmasked = false;
};

// The file is complete with every call that returns.
class Recorder {
 public:
  // `scenario` is the device's. Of the past there are to be `last` entries. Throws std::runtime_error when the file
  // cannot be made, and so do the others when it cannot be written.
  Recorder(const RecordOptions& options, const Json& scenario, TrafficFilter filter, Newest past);

  // The entries that come follow the one numbered `after`; those up to `newest` are the past.
  void start(std::uint64_t after, std::uint64_t newest);

  // JSON lines; a text goes on where the one before was cut.
  void take(const std::string& text);

  // All there are to come up to that number have come: others are missing.
  void finish(std::uint64_t number);

  // Of the last entry that has come.
  std::uint64_t newest() const { return m_newest; }

  // Says on standard error what the file has and has not.
  void summarize() const;

 private:
  void add(Json line);
  void addGap(std::uint64_t before);
  void addPast();
  void write(Json line);
  void count(const Json& line, bool written);
  void flush();

  OutputFile m_file;
  Redactions m_redactions;
  bool m_masked;
  TrafficFilter m_filter;
  Newest m_past;
  std::uint64_t m_pastEnd = 0;
  std::string m_text;   // a line that has not ended
  std::string m_lines;  // to be written
  std::uint64_t m_newest = 0;
  std::uint64_t m_entries = 0;
  std::uint64_t m_missing = 0;
  std::uint64_t m_shortened = 0;
};

}  // namespace orvel::sim

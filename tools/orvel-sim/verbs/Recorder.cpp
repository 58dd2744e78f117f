#include "tools/orvel-sim/verbs/Recorder.h"

#include <cstddef>
#include <iostream>
#include <sstream>
#include <utility>

#include "device/Traffic.h"

namespace orvel::sim {

Recorder::Recorder(const RecordOptions& options, const Json& scenario, TrafficFilter filter, Newest past)
    : m_file(options.file, options.replace),
      m_redactions(scenario),
      m_masked(!options.unmasked),
      m_filter(std::move(filter)),
      m_past(std::move(past)) {
  m_file.write(recordingHeader({{"type", scenario.at("delegate").at("type")}}, m_masked).dump() + "\n");
}

void Recorder::start(std::uint64_t after, std::uint64_t newest) {
  m_newest = after;
  m_pastEnd = newest;
}

void Recorder::take(const std::string& text) {
  m_text += text;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = m_text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    add(parseMessage(m_text.substr(begin, end - begin)));
  }
  m_text.erase(0, begin);
  if (m_newest >= m_pastEnd) addPast();
  flush();
}

void Recorder::finish(std::uint64_t number) {
  addGap(number + 1);
  addPast();
  flush();
}

void Recorder::add(Json line) {
  if (line.contains(kLife)) {
    addPast();
    line["gap"] = recordingGap(m_newest, 0)["gap"];
    return write(std::move(line));
  }
  const auto number = line.at("number").get<std::uint64_t>();
  addGap(number);
  m_newest = number;
  if (!m_filter.matches(line)) return;
  if (number <= m_pastEnd) return m_past.add(std::move(line));
  addPast();
  write(std::move(line));
}

// For what is missing between the newest entry and the one with that number.
void Recorder::addGap(std::uint64_t before) {
  if (before <= m_newest + 1) return;
  const Json gap = recordingGap(m_newest, before - m_newest - 1);
  if (m_newest < m_pastEnd) {
    m_past.add(gap);
  } else {
    write(gap);
  }
  m_newest = before - 1;
}

void Recorder::addPast() {
  for (Json& line : m_past.take()) write(std::move(line));
}

void Recorder::write(Json line) {
  count(line, /*written=*/true);
  if (m_masked && !line.contains("gap")) m_redactions.apply(line);
  m_lines += line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

void Recorder::count(const Json& line, bool written) {
  const auto add = [&](std::uint64_t& counter, std::uint64_t number) { counter += written ? number : -number; };
  if (const auto gap = line.find("gap"); gap != line.end()) return add(m_missing, gap->at("entries"));
  add(m_entries, 1);
  if (line.contains("shortened")) add(m_shortened, 1);
}

void Recorder::flush() {
  const std::string lines = std::exchange(m_lines, {});
  const off_t before = m_file.size();
  try {
    m_file.write(lines);
  } catch (const std::exception&) {
    std::istringstream rest(lines.substr(static_cast<std::size_t>(m_file.size() - before)));
    for (std::string line; std::getline(rest, line);) count(Json::parse(line), /*written=*/false);
    throw;
  }
}

void Recorder::summarize() const {
  std::cerr << "orvel-sim: " << countedEntries(m_entries) << (m_entries == 1 ? " was" : " were") << " recorded";
  if (m_missing != 0) std::cerr << ", " << withCommas(m_missing) << (m_missing == 1 ? " is" : " are") << " missing";
  if (m_shortened != 0) std::cerr << ", of " << withCommas(m_shortened) << " there was only the beginning";
  std::cerr << std::endl;
}

}  // namespace orvel::sim

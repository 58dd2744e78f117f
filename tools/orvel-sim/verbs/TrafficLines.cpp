#include "tools/orvel-sim/verbs/TrafficLines.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sstream>

#include "device/Traffic.h"
#include "device/TrafficFilter.h"
#include "tools/cli/Colour.h"
#include "tools/cli/Text.h"

namespace orvel::sim {
namespace {

using cli::Colour;

// A terminal that is narrower than the first has no room for the processes of clients; one that is narrower than the
// second none for latencies and clients.
constexpr std::size_t kWide = 100;
constexpr std::size_t kNarrow = 80;
// So that what follows stands in a column, where it fits.
constexpr int kLatencyColumns = 9;
constexpr int kLeastLatencyColumns = 7;
constexpr std::size_t kClientColumns = 16;
constexpr std::size_t kProgramColumns = 8;
// What is left of the arguments in front of a failure, of which the reason must be seen, and of a result behind them.
constexpr std::size_t kLeastArguments = 4;
constexpr std::size_t kLeastResult = 12;

std::string latencyOf(const Json& entry, int columns) {
  std::string text(static_cast<std::size_t>(columns) + 3, ' ');
  if (!entry.contains("durationMs")) return text;
  std::snprintf(text.data(), text.size() + 1, "%*.3f ms", columns, entry.at("durationMs").get<double>());
  return text;
}

std::string clientOf(const Json& entry, bool withProcess) {
  std::string text = entry.value("client", std::string());
  if (withProcess || text.empty()) text += (text.empty() ? "process " : " ") + entry.at("pid").dump();
  text.resize(std::max(text.size(), withProcess ? kClientColumns : kProgramColumns), ' ');
  return text;
}

// A line before it is coloured.
struct Parts {
  std::string time;
  std::string head;  // up to the name of what was called
  std::string arguments;
  std::string result;
  std::string faults;

  // A fault of the method that was called, and not of all, needs no name beside it.
  void leaveOutName(const Json& entry) {
    if (!entry.contains("method") || !entry.at("method").is_string()) return;
    const std::string name = " on " + entry.at("method").get<std::string>();
    for (std::size_t at = 0; (at = faults.find(name, at)) != std::string::npos;) faults.erase(at, name.size());
  }

  // The faults stay whole, where they fit, then the reason of a failure; a result goes before the arguments do.
  void cutTo(std::size_t columns, bool failed) {
    const auto cut = [&](std::string& text, std::size_t kept) {
      text = cli::cutTo(text, columns - std::min(columns, kept));
      columns -= std::min(columns, cli::widthOf(text));
    };
    for (std::string* text : {&time, &head, &faults}) cut(*text, 0);
    std::string& first = failed ? result : arguments;
    std::string& second = failed ? arguments : result;
    cut(first, std::min(failed ? kLeastArguments : kLeastResult, cli::widthOf(second)));
    cut(second, 0);
  }
};

// What the line before it does not say.
std::string unfolded(Json entry) {
  for (const char* said : {"timeMs", "timeUs", "service", "method", "notification", "code", "pid", "client",
                           "servicePid", "durationMs", "number", "faults"}) {
    entry.erase(said);
  }
  std::istringstream lines(cli::jsonText(entry, 2));
  std::string text;
  for (std::string line; std::getline(lines, line);) text += "\n    " + line;
  return text;
}

}  // namespace

TrafficLines::TrafficLines(Form form)
    : m_form(form), m_columns(form == Form::kLine ? cli::columnsOf(STDOUT_FILENO) : 0) {}

std::string TrafficLines::write(const Json& line) const {
  if (m_form == Form::kJson) return cli::jsonText(line);
  if (const auto gap = line.find("gap"); gap != line.end()) {
    const auto entries = gap->at("entries").get<std::uint64_t>();
    return cli::coloured(STDOUT_FILENO, Colour::kYellow, "… " + countedEntries(entries) + " missing");
  }
  return m_form == Form::kFull ? writeLine(line) + unfolded(line) : writeLine(line);
}

std::string TrafficLines::writeLine(const Json& entry) const {
  const bool full = m_form == Form::kFull;
  const bool failed = hasFailed(entry);
  const bool faulted = entry.contains("faults");
  const auto after = [](const char* before, const std::string& text) { return text.empty() ? text : before + text; };
  Parts parts = {clockTime(entry.at("timeMs")), "", "", "", ""};
  if (m_columns == 0 || m_columns >= kNarrow) {
    const bool wide = m_columns == 0 || m_columns >= kWide;
    parts.head = latencyOf(entry, wide ? kLatencyColumns : kLeastLatencyColumns) + "  " + clientOf(entry, wide);
  }
  parts.head += "  " + describeName(entry);
  if (!full) parts.arguments = describeArguments(entry.at("arguments"));
  // A reply follows where all is shown.
  if (!full || failed || faulted) parts.result = after(" ", describeResult(entry));
  parts.faults = after(parts.result.empty() ? " " : ", ", describeFaults(entry));
  for (std::string* text : {&parts.head, &parts.arguments, &parts.result, &parts.faults}) {
    *text = cli::printableJson(*text);
  }
  if (m_columns != 0) {
    parts.leaveOutName(entry);
    parts.cutTo(m_columns, failed);
  }
  const std::string line = cli::coloured(STDOUT_FILENO, Colour::kDim, parts.time) + parts.head + parts.arguments;
  const std::string outcome = parts.result + parts.faults;
  if (outcome.empty() || (!failed && !faulted)) return line + outcome;
  return line + cli::coloured(STDOUT_FILENO, failed ? Colour::kRed : Colour::kYellow, outcome);
}

}  // namespace orvel::sim

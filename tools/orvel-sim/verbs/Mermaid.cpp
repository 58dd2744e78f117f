#include "tools/orvel-sim/verbs/Mermaid.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string_view>
#include <utility>

#include "device/Recording.h"
#include "device/Traffic.h"
#include "tools/cli/Text.h"

namespace orvel::sim {
namespace {

constexpr std::size_t kMostColumns = 80;

// What has a meaning in a diagram, in HTML or in formulas becomes the number of the character.
std::string escaped(const std::string& text) {
  constexpr std::string_view kSpecial = "#;<>&%$\\";
  std::string safe;
  for (const char character : cli::cutTo(cli::printableJson(text), kMostColumns)) {
    if (kSpecial.find(character) == std::string_view::npos) {
      safe += character;
    } else {
      safe += "#" + std::to_string(static_cast<int>(character)) + ";";
    }
  }
  return safe;
}

// Microseconds since 1970.
double timeOf(const Json& told) {
  return told.value("timeUs", told.at("timeMs").get<double>() * 1000);
}

class Diagram {
 public:
  explicit Diagram(const std::vector<Json>& lines) {
    double time = 0;
    for (const Json& line : lines) {
      if (const auto life = line.find(kLife); life != line.end()) {
        const std::string service = serviceOf(*life);
        time = timeOf(*life);
        add(time, "Note over " + service + ": " + (life->at("alive") == true ? "started" : "died"));
      } else if (line.contains("gap")) {
        m_gaps.emplace_back(m_steps.size(), line.at("gap").at("entries").get<std::uint64_t>());
        add(time, "");
      } else {
        time = timeOf(line);
        if (line.contains("notification")) addNotification(line, time);
        if (line.contains("method")) addCall(line, time);
      }
    }
  }

  std::string text() && {
    std::string text = "sequenceDiagram\n";
    for (const auto& [pid, name] : m_clients) text += "    participant " + idOf(pid) + " as " + name + "\n";
    for (const std::string& service : m_services) text += "    participant " + service + "\n";
    for (const auto& [step, entries] : m_gaps) {
      m_steps[step].text = noteOverAll(countedEntries(entries) + " missing");
    }
    const auto isBefore = [](const Step& a, const Step& b) { return a.time < b.time; };
    std::stable_sort(m_steps.begin(), m_steps.end(), isBefore);
    for (const Step& step : m_steps) {
      if (!step.text.empty()) text += "    " + step.text + "\n";
    }
    return text;
  }

 private:
  struct Step {
    double time;
    std::string text;
  };

  static std::string idOf(std::int64_t client) { return "p" + std::to_string(client); }

  std::string clientOf(const Json& line) {
    const auto pid = line.at("pid").get<std::int64_t>();
    const auto isIt = [&](const auto& client) { return client.first == pid; };
    if (std::none_of(m_clients.begin(), m_clients.end(), isIt)) {
      const std::string program = line.value("client", std::string());
      m_clients.emplace_back(pid, escaped((program.empty() ? "process" : program) + " " + std::to_string(pid)));
    }
    return idOf(pid);
  }

  std::string serviceOf(const Json& line) {
    std::string service = line.at("service");
    if (std::find(m_services.begin(), m_services.end(), service) == m_services.end()) m_services.push_back(service);
    return service;
  }

  std::string noteOverAll(const std::string& note) const {
    std::string ends = m_clients.empty() ? "" : idOf(m_clients.front().first);
    if (!m_services.empty()) ends += (ends.empty() ? "" : ",") + m_services.back();
    return ends.empty() ? "" : "Note over " + ends + ": " + note;
  }

  void add(double time, std::string text) { m_steps.push_back({time, std::move(text)}); }

  void addCall(const Json& line, double end) {
    const std::string client = clientOf(line);
    const std::string service = serviceOf(line);
    const double durationMs = line.value("durationMs", 0.0);
    const std::string name = describeName(line).substr(service.size() + 1);
    add(end - durationMs * 1000,
        client + "->>" + service + ": " + escaped(name + describeArguments(line.at("arguments"))));
    const std::string outcome = describeOutcome(line);
    if (line.contains("hangs")) return add(end, "Note over " + service + ": " + escaped(name + " " + outcome));
    std::string took(32, '\0');
    took.resize(static_cast<std::size_t>(std::snprintf(took.data(), took.size(), " (%.4g ms)", durationMs)));
    const char* const arrow = line.contains("reply") && !line.contains("truncatedTo") ? "-->>" : "--x";
    add(end,
        service + arrow + client + ": " + escaped(outcome.rfind("= ", 0) == 0 ? outcome.substr(2) : outcome) + took);
  }

  void addNotification(const Json& line, double time) {
    const std::string client = clientOf(line);
    const std::string service = serviceOf(line);
    const std::string outcome = describeOutcome(line);
    add(time, service + (line.contains("error") ? "-x" : "-)") + client + ": " +
                  escaped(line.at("notification").get<std::string>() + describeArguments(line.at("arguments"))) +
                  (outcome.empty() ? "" : " " + escaped(outcome)));
  }

  std::vector<std::pair<std::int64_t, std::string>> m_clients;  // in the order in which they are met
  std::vector<std::string> m_services;
  std::vector<Step> m_steps;
  std::vector<std::pair<std::size_t, std::uint64_t>> m_gaps;  // which steps they are, and how many entries
};

}  // namespace

std::string mermaidOf(const std::vector<Json>& lines) {
  return Diagram(lines).text();
}

}  // namespace orvel::sim

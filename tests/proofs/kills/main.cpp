// orvel-kill-loop: kills the services of a device again and again under clients that use all of it, and has the checker
// judge what clients and device wrote down.
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Checker.h"
#include "Loop.h"
#include "support/Runner.h"

namespace orvel::kills {
namespace {

namespace fs = std::filesystem;

// What the device knows is little, because each change sends all of it to every service.
void writeScenario(const fs::path& file) {
  const Json scenario = {
      {"packages", {{"packages", {{"com.example.app", Json::object()}}}}},
      {"activity", {{"processes", {{"com.example.app", {{"pid", 4000}, {"importance", 100}}}}}}},
      {"events", {{"resultDelayMs", 40}}},
  };
  std::ofstream(file) << scenario.dump() << '\n';
}

// What must have happened in a run for its result to mean anything.
void demandAll(Findings& findings) {
  for (const char* what : {"given up", "refused replays", "refused notices", "not restored", "owed", "replays"}) {
    if (findings.counts[what] == 0) findings.complaints.push_back(std::string("the run never counted: ") + what);
  }
}

Findings judge(const fs::path& directory, const std::vector<std::string>& clients, bool canary) {
  Findings findings;
  const std::vector<Record> device = readHistory(directory / "device.jsonl");
  for (const std::string& name : clients) {
    std::vector<Record> history = readHistory(directory / (name + ".jsonl"));
    const auto isName = [](const Record& each) { return each.what == "notice" && each.value.rfind("kill ", 0) == 0; };
    const auto told = std::find_if(history.begin(), history.end(), isName);
    if (canary && told != history.end()) history.insert(told, Record(*told));  // it was told so twice
    check(device, name, history, findings);
  }
  return findings;
}

// Gives what to add to the line of result.
std::string run(const test::Runner& runner, std::size_t clientCount, const fs::path& directory) {
  setenv("ORVEL_RUNTIME_DIR", (directory / "device").c_str(), 1);
  writeScenario(directory / "scenario.json");
  std::string failure;
  std::vector<std::string> clients;
  std::ostringstream summary;
  {
    Loop loop(directory, runner.seed(), runner.count(), clientCount);
    try {
      loop.run();
    } catch (const std::exception& error) {
      failure = error.what();
    }
    clients = loop.clients();
    summary << loop.kills() << " kills, " << clients.size() << " clients";
  }
  test::begin("the histories");
  Findings findings = judge(directory, clients, runner.canary());
  if (failure.empty()) demandAll(findings);
  for (const auto& [what, count] : findings.counts) summary << ", " << count << ' ' << what;
  if (!failure.empty()) findings.complaints.push_back(failure);
  for (const std::string& complaint : findings.complaints) test::require(false, complaint);
  if (!findings.complaints.empty()) {
    const fs::path kept = fs::temp_directory_path() / ("orvel-kills-" + std::to_string(getpid()));
    fs::copy(directory, kept, fs::copy_options::recursive);
    std::cout << "histories: " << kept.string() << std::endl;
  }
  return summary.str();
}

}  // namespace
}  // namespace orvel::kills

int main(int argc, char** argv) {
  orvel::test::Runner runner("kills", "Kills the services of a simulated device under clients that use all of it", 300);
  std::size_t clients = 3;
  runner.options().add_option("--clients", clients, "at a time")->check(CLI::Range(1, 20))->capture_default_str();
  if (const auto status = runner.parse(argc, argv)) return *status;
  std::signal(SIGPIPE, SIG_IGN);
  std::string summary;
  runner.add("loop", [&] {
    const orvel::test::TemporaryDirectory directory;
    summary = orvel::kills::run(runner, clients, directory.path());
  });
  return runner.run([&] { return summary; });
}

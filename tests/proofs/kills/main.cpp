// orvel-kill-loop: kills the services of a device again and again under clients that use all of it, and has the checker
// judge what clients and device wrote down.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Checker.h"
#include "Loop.h"

namespace orvel::kills {
namespace {

namespace fs = std::filesystem;

std::atomic<bool> s_interrupted(false);

// Between an early moment of a process and a late one. What the C library keeps for later is a few hundred kilobytes; a
// single message that was forgotten at each death would be more.
constexpr Usage kTolerance = {4096, 1, 4};
constexpr int kEventDelayMs = 40;
constexpr std::size_t kComplaintsShown = 20;

// Where a run writes; removed at the end unless it is to be kept.
class Directory {
 public:
  explicit Directory(const fs::path& kept) : m_keep(!kept.empty()) {
    if (m_keep) {
      fs::create_directories(kept);
      m_path = fs::absolute(kept);
      return;
    }
    std::string path = fs::temp_directory_path() / "orvel-kills-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
    m_path = path;
  }
  ~Directory() {
    std::error_code ignored;
    if (!m_keep) fs::remove_all(m_path, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  const fs::path& path() const { return m_path; }
  void keep() { m_keep = true; }

 private:
  fs::path m_path;
  bool m_keep;
};

void add(Counts& sum, const Counts& counts) {
  for (std::int64_t Counts::*each :
       {&Counts::calls, &Counts::owed, &Counts::open, &Counts::withheld, &Counts::events, &Counts::replays,
        &Counts::givenUp, &Counts::refused, &Counts::notRestored, &Counts::deadEvents, &Counts::undelivered}) {
    sum.*each += counts.*each;
  }
}

Findings judge(const fs::path& directory, const std::vector<std::string>& clients) {
  Findings all;
  History history;
  history.device = readHistory(directory / "device.jsonl");
  for (const std::string& name : clients) {
    history.name = name;
    history.client = readHistory(directory / (name + ".jsonl"));
    const Findings found = check(history);
    add(all.counts, found.counts);
    all.complaints.insert(all.complaints.end(), found.complaints.begin(), found.complaints.end());
  }
  return all;
}

// What must have happened in a run for its result to mean anything.
void demandAll(const Counts& counts, bool isLong, std::vector<std::string>& complaints) {
  const std::pair<std::int64_t, const char*> wanted[] = {{counts.givenUp, "a service given up on"},
                                                         {counts.refused, "a refused replay made later"},
                                                         {counts.notRestored, "a lost network callback"},
                                                         {counts.owed, "a notice that was owed"},
                                                         {counts.replays, "a whole replay"}};
  for (const auto& [count, what] : wanted) {
    if (count == 0) complaints.push_back(std::string("the run never came to ") + what);
  }
  if (!isLong) return;
  // The queue is filled in long runs only, and whether an event is on its way at the moment of a kill is a matter of chance.
  if (counts.undelivered == 0) complaints.emplace_back("the run never came to a notice that was refused");
  if (counts.deadEvents == 0) complaints.emplace_back("the run never came to an event whose service died");
}

void demandFlat(const char* whose, const Growth& growth, std::vector<std::string>& complaints) {
  const Usage& most = growth.most;
  if (most.kilobytes <= kTolerance.kilobytes && most.threads <= kTolerance.threads &&
      most.descriptors <= kTolerance.descriptors) {
    return;
  }
  std::ostringstream text;
  text << whose << " grew by " << most.kilobytes << " KiB, " << most.threads << " threads, " << most.descriptors
       << " descriptors";
  complaints.push_back(text.str());
}

std::string describe(const char* whose, const Growth& growth) {
  std::ostringstream text;
  text << whose;
  if (growth.compared == 0) {
    text << " not compared";
  } else {
    text << std::showpos << ' ' << growth.most.kilobytes << " KiB " << growth.most.threads << " threads "
         << growth.most.descriptors << " descriptors";
  }
  return text.str();
}

// What the device knows is little, because each change sends all of it to every service.
void writeScenario(const fs::path& file) {
  const Json scenario = {
      {"packages", {{"packages", {{"com.example.app", Json::object()}}}}},
      {"activity", {{"processes", {{"com.example.app", {{"pid", 4000}, {"importance", 100}}}}}}},
      {"events", {{"resultDelayMs", kEventDelayMs}}},
  };
  std::ofstream(file) << scenario.dump() << '\n';
}

int run(const Options& options, const fs::path& kept) {
  const auto start = std::chrono::steady_clock::now();
  Directory directory(kept);
  setenv("ORVEL_RUNTIME_DIR", (directory.path() / "device").c_str(), 1);
  writeScenario(directory.path() / "scenario.json");

  std::vector<std::string> complaints;
  std::vector<std::string> clients;
  std::int64_t kills = 0;
  Growth clientGrowth;
  Growth deviceGrowth;
  {
    Loop loop(options, directory.path());
    try {
      loop.run();
    } catch (const std::exception& error) {
      complaints.emplace_back(s_interrupted ? "interrupted" : error.what());
    }
    kills = loop.kills();
    clients = loop.clients();
    clientGrowth = loop.clientGrowth();
    deviceGrowth = loop.deviceGrowth();
  }
  const bool whole = complaints.empty();
  Findings findings;
  if (!s_interrupted) findings = judge(directory.path(), clients);
  if (whole) demandAll(findings.counts, options.kills >= kLongEnough, complaints);
  demandFlat("a client", clientGrowth, complaints);
  demandFlat("the device", deviceGrowth, complaints);
  complaints.insert(complaints.end(), findings.complaints.begin(), findings.complaints.end());

  for (std::size_t i = 0; i < complaints.size() && i < kComplaintsShown; ++i) std::cout << complaints[i] << '\n';
  if (complaints.size() > kComplaintsShown) std::cout << "and " << complaints.size() - kComplaintsShown << " more\n";
  if (!complaints.empty() && !s_interrupted) {
    directory.keep();
    std::cout << "histories: " << directory.path().string() << "; again with --seed " << options.seed << '\n';
  }
  const Counts& counts = findings.counts;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
  std::cout << "kill loop: seed " << options.seed << ", " << kills << " kills, " << clients.size() << " clients, "
            << counts.calls << " calls, " << counts.owed << " notices owed, " << counts.open << " open, "
            << counts.withheld << " withheld, " << counts.events << " events, " << counts.replays
            << " replays; given up " << counts.givenUp << ", replays refused " << counts.refused
            << ", network not restored " << counts.notRestored << ", events dead " << counts.deadEvents
            << ", undelivered " << counts.undelivered << "; " << describe("clients", clientGrowth) << ", "
            << describe("device", deviceGrowth) << "; " << seconds.count() << " s; "
            << (complaints.empty() ? "sound" : std::to_string(complaints.size()) + " complaints") << std::endl;
  return complaints.empty() ? 0 : 1;
}

}  // namespace

void endWaiting(std::int64_t since, const std::string& what) {
  if (s_interrupted) throw Failure("interrupted");
  if (now() - since > kPatience) throw Failure(what + " after 30 s");
}

}  // namespace orvel::kills

int main(int argc, char** argv) {
  using namespace orvel::kills;
  Options options;
  std::string kept;
  CLI::App app(
      "Kills the services of a simulated device under clients that use all of it; status 1 when anything was lost, "
      "doubled, late or left behind.");
  app.add_option("--seed", options.seed, "of the schedule")->capture_default_str();
  app.add_option("--count", options.kills, "kills")->check(CLI::PositiveNumber)->capture_default_str();
  app.add_option("--clients", options.clients, "at a time")->check(CLI::Range(1, 20))->capture_default_str();
  app.add_option("--keep", kept, "a folder for the histories, which are kept; else only those of a failure are");
  CLI11_PARSE(app, argc, argv);
  options.programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  std::signal(SIGPIPE, SIG_IGN);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, [](int) { s_interrupted = true; });
  try {
    return run(options, kept);
  } catch (const std::exception& error) {
    std::cout << "kill loop: seed " << options.seed << ": " << error.what() << std::endl;
    return 1;
  }
}

#include "tools/orvel-sim/host/Run.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "tools/cli/DeviceDirectory.h"
#include "tools/cli/Streams.h"
#include "tools/orvel-sim/host/Devices.h"
#include "tools/orvel-sim/host/EventSource.h"
#include "tools/orvel-sim/host/IsolatedService.h"
#include "tools/orvel-sim/host/PrivateDirectory.h"
#include "tools/orvel-sim/host/Process.h"
#include "tools/orvel-sim/host/Supervisor.h"
#include "tools/orvel-sim/host/Web.h"

namespace orvel::sim {
namespace {

namespace fs = std::filesystem;

// In a directory that a run has made, so that after one that was killed the next one there removes it.
constexpr char kMade[] = ".made";

// Removes a directory at the end, with all that is in it.
class RemovedDirectory {
 public:
  explicit RemovedDirectory(fs::path path) : m_path(std::move(path)) {}
  ~RemovedDirectory() {
    std::error_code ignored;
    if (!m_path.empty()) fs::remove_all(m_path, ignored);
  }
  RemovedDirectory(const RemovedDirectory&) = delete;
  RemovedDirectory& operator=(const RemovedDirectory&) = delete;

 private:
  fs::path m_path;
};

// Calls `taken` on the run-loop thread for each of the signals that blockSignals blocked.
class Signals {
 public:
  using Taken = std::function<void(const signalfd_siginfo&)>;

  Signals(sd_event* event, const std::vector<int>& signals, Taken taken) : m_taken(std::move(taken)) {
    for (const int signal : signals) {
      sd_event_source* source = nullptr;
      const auto notice = [](sd_event_source*, const signalfd_siginfo* caught, void* self) noexcept {
        static_cast<Signals*>(self)->m_taken(*caught);
        return 0;
      };
      check(sd_event_add_signal(event, &source, signal, notice, this), "watching signals");
      m_sources.emplace_back(source);
    }
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

 private:
  Taken m_taken;
  std::vector<SourcePtr> m_sources;
};

// The life of a device: its services, perhaps a command, and how both end.
class ServedDevice {
 public:
  ServedDevice(void* runtime, const RunOptions& options)
      : m_runtime(runtime),
        m_event(vesk_service_event(runtime)),
        m_options(options),
        m_command(options.command),
        m_supervisor(runtime, options.scenario, options.isolate),
        m_signals(m_event, {SIGINT, SIGTERM, SIGHUP}, [this](const signalfd_siginfo& signal) { interrupted(signal); }) {
    m_supervisor.setReplay(options.replay);
    if (options.web) m_web = std::make_unique<Web>(m_supervisor, *options.web);
    for (const std::string& service : options.without) m_supervisor.leaveOut(serviceCalled(service));
  }

  int run() {
    try {
      m_supervisor.start([this](const std::string& error) { started(error); });
    } catch (const std::system_error& error) {
      if (error.code().value() != EADDRINUSE) throw;
      throw std::runtime_error(std::string("another device lives in ") + vesk_runtime_directory() +
                               "; to have two: orvel-sim run --name NAME");
    }
    vesk_run_loop(m_runtime);
    return m_status;
  }

 private:
  void started(const std::string& error) {
    if (m_ending) return;
    if (!error.empty()) {
      std::cerr << "orvel-sim: " << error << std::endl;
      return end(1);
    }
    if (!announce()) return end(1);
    if (m_command.empty()) return;
    // The output is the command's.
    if (m_web) std::cerr << "orvel-sim: the page is at " << m_web->address() << std::endl;
    try {
      m_process = std::make_unique<Process>(m_event, m_command.front(), m_command, Process::Streams::kInherited,
                                            [this](const siginfo_t& how) { end(statusOf(how)); });
    } catch (const std::system_error& failed) {
      std::cerr << "orvel-sim: " << failed.what() << std::endl;
      end(failed.code().value() == ENOENT ? 127 : 126);
    }
  }

  Json announcement() const {
    Json services = Json::array();
    for (const auto& runner : m_supervisor.runners()) {
      services.push_back({{"service", runner->type().id}, {"pid", runner->pid()}});
    }
    Json told = {{"serving", vesk_runtime_directory()}, {"pid", getpid()}};
    if (!m_options.name.empty()) told["name"] = m_options.name;
    if (m_web) told["page"] = m_web->address();
    told["services"] = services;
    return told;
  }

  // Of the services those that are not simply there: in other processes, dead, or left out.
  std::string announcementInWords() const {
    std::string text = std::string("orvel-sim: serving in ") + vesk_runtime_directory() + " (process " +
                       std::to_string(getpid()) + ")\n";
    for (const auto& runner : m_supervisor.runners()) {
      const pid_t pid = runner->pid();
      if (pid == getpid()) continue;
      const bool isLeftOut = m_supervisor.isLeftOut(runner->type());
      const std::string state = isLeftOut ? "left out" : pid == 0 ? "dead" : "process " + std::to_string(pid);
      text += "  " + runner->type().id + std::string(14 - runner->type().id.size(), ' ') + state + "\n";
    }
    if (m_web) text += "  the page is at " + m_web->address() + "\n";
    if (m_options.name.empty()) return text;
    return text + "  verbs: orvel-sim -d " + m_options.name +
           " VERB; other programs: export ORVEL_RUNTIME_DIR=" + vesk_runtime_directory() + "\n";
  }

  // False when it cannot be told where the device is.
  bool announce() {
    const std::string json = announcement().dump() + "\n";
    try {
      if (m_command.empty()) {
        std::cout << (m_options.json ? json : announcementInWords());
        cli::flushOutput();
      }
    } catch (const std::runtime_error& failed) {
      std::cerr << "orvel-sim: " << failed.what() << std::endl;
      return false;
    }
    if (m_options.readyFd < 0) return true;
    const std::string line = m_options.json ? json : "ready\n";
    const ssize_t written = write(m_options.readyFd, line.data(), line.size());
    if (written < 0) std::cerr << "orvel-sim: --ready-fd: " << std::strerror(errno) << std::endl;
    close(m_options.readyFd);
    return true;
  }

  void interrupted(const signalfd_siginfo& signal) {
    if (!m_process) return end(m_command.empty() ? 0 : 128 + static_cast<int>(signal.ssi_signo));
    // What a terminal sends, it sends to the command too.
    if (signal.ssi_code != SI_KERNEL) kill(m_process->pid(), static_cast<int>(signal.ssi_signo));
  }

  void end(int status) {
    m_ending = true;
    m_status = status;
    m_web.reset();
    m_supervisor.stop();
    vesk_shutdown(m_runtime);
  }

  void* m_runtime;
  sd_event* m_event;
  const RunOptions& m_options;
  const std::vector<std::string>& m_command;
  int m_status = 0;
  bool m_ending = false;
  Supervisor m_supervisor;
  std::unique_ptr<Web> m_web;          // null: there is no page
  std::unique_ptr<Process> m_process;  // null until the services run
  Signals m_signals;
};

}  // namespace

int runDevice(const RunOptions& options) {
  blockSignals();
  if (options.readyFd >= 0 && fcntl(options.readyFd, F_SETFD, FD_CLOEXEC) != 0) {
    throw ScenarioError("run: --ready-fd " + std::to_string(options.readyFd) + ": " + std::strerror(errno));
  }
  // Declared before what must have ended when the directory goes.
  std::optional<PrivateDirectory> temporary;
  if (!options.name.empty()) {
    chooseDevice(directoryOfName(options.name));
    makeFolderOfNames();
  } else if (!options.command.empty()) {
    temporary.emplace();
  }
  if (!options.command.empty()) prctl(PR_SET_CHILD_SUBREAPER, 1);
  const fs::path directory = vesk_runtime_directory();
  if (const std::string problem = servingProblem(directory); !problem.empty()) {
    throw std::runtime_error("cannot serve in " + directory.string() + ": " + problem);
  }
  std::error_code ignored;
  const bool found = fs::exists(directory, ignored);
  const bool isLeft = fs::exists(directory / kMade, ignored) && !cli::deviceLivesIn(directory);
  void* runtime = nullptr;
  if (vesk_serve_device(&runtime) != 0) return 1;  // vesk has said why
  const RemovedDirectory made(found && !isLeft ? fs::path() : directory);
  if (!found) std::ofstream(directory / kMade) << "by orvel-sim run\n";
  const int status = ServedDevice(runtime, options).run();
  // What the command has started may keep open the streams that the parent of this process reads, and has no device any
  // more.
  if (!options.command.empty()) endOrphans();
  return status;
}

int serveAlone(const std::string& name, pid_t parent) {
  if (getppid() != parent) return 1;  // it has ended already
  blockSignals();
  void* runtime = nullptr;
  if (vesk_serve_device(&runtime) != 0) return 1;
  IsolatedService host(runtime, serviceCalled(name));
  // A terminal's Ctrl-C reaches this process too, but when to end is for the device to say.
  const Signals signals(vesk_service_event(runtime), {SIGTERM}, [&](const signalfd_siginfo&) { host.stop(); });
  host.serve();
  return 0;
}

}  // namespace orvel::sim

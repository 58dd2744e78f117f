#include "Doctor.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Commands.h"
#include "tools/cli/Colour.h"
#include "tools/cli/DeviceDirectory.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

using orvel::cli::Colour;
using orvel::cli::DeviceDirectory;
using orvel::cli::deviceDirectory;
using orvel::cli::deviceProblem;
using orvel::cli::directoryProblem;
using orvel::cli::isStopped;
using orvel::cli::otherDevices;
using orvel::cli::Problem;
using orvel::cli::serverOf;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr long long kCallLimitMs = 1000;  // what a service that hangs costs
constexpr std::chrono::milliseconds kCallLimit(kCallLimitMs);
constexpr long long kLongestCallLimitMs = 24LL * 60 * 60 * 1000;  // the runtime's
constexpr char kCallLimitVariable[] = "ORVEL_CALL_TIMEOUT_MS";
constexpr Milliseconds kSlow{250};
constexpr std::size_t kCalls = 5;  // of which the median counts

enum class State { kOk, kWarning, kFailure };

// What one look has shown.
struct Check {
  std::string name;
  State state = State::kOk;
  std::string message;
  std::string advice{};  // a command that helps with a problem
  std::optional<double> milliseconds{};
  // Of a failure.
  int exitStatus = kFailed;
  std::string service{};
  std::string directory{};
};

// A service, and a call that changes nothing.
struct Patient {
  Service service;
  const char* command = nullptr;  // that asks it; null where every call would change something
  std::function<Json(Client&)> ask{};

  const char* id() const { return nameOf(service); }  // by which orvel-sim knows it
  const char* name() const { return boundName(service); }
};

// Taken and given back.
Json subscribeToNetwork(Client& client) {
  return client.registerForNetworkConnectivityChange([](bool) {}) && client.unregisterForNetworkConnectivityChange();
}

const std::vector<Patient>& patients() {
  static const std::vector<Patient> all = {
      {Service::kDelegate, "get name", &Client::getDeviceName},
      {Service::kPower, "screen", &Client::isScreenOn},
      {Service::kConnectivity, "watch network --for 1", subscribeToNetwork},
      {Service::kActivity, "am foreground", namesBy(&Client::getForegroundPackages)},
      {Service::kPackages, "pm list packages", namesBy(&Client::getInstalledPackageNames)},
      {Service::kEvents},
      {Service::kCoordinator},
      {Service::kMetrics},
  };
  return all;
}

// The file from which a function comes; empty for one that is nowhere.
std::string fileOf(const char* function) {
  Dl_info info{};
  void* const address = dlsym(RTLD_DEFAULT, function);
  if (address == nullptr || dladdr(address, &info) == 0) return {};
  std::error_code error;
  const std::filesystem::path file = std::filesystem::canonical(info.dli_fname, error);
  return error ? info.dli_fname : file.string();
}

class Examination {
 public:
  explicit Examination(Session& session) : m_session(session), m_directory(deviceDirectory()) {}

  void run() {
    lookAtPrograms();
    lookAtCallLimit();
    if (lookAtDirectory()) lookAtServices();
    report();
  }

 private:
  void add(Check check) { m_checks.push_back(std::move(check)); }

  void lookAtPrograms() {
    add({"orvelctl", State::kOk, ORVEL_PROGRAM_VERSION});
    // The functions by which the libraries are known; the client's is that which the others are called by.
    const std::pair<const char*, const char*> libraries[] = {
        {"client", "_ZN5orvel12service_apis19OrvelDelegateClient9getClientEv"},
        {"libvesk", "vesk_get_runtime"},
        {"liblog", "__android_log_write"},
    };
    for (const auto& [name, function] : libraries) {
      const std::string file = fileOf(function);
      add({name, State::kOk, file.empty() ? "part of this program" : file});
    }
  }

  // The library reads the limit once, when it is first used.
  void lookAtCallLimit() {
    const char* const set = std::getenv(kCallLimitVariable);
    const std::string word = set == nullptr ? "" : set;
    const std::optional<long long> limit = readNumber<long long>(word);
    const bool isLimit = limit && *limit > 0;
    const auto warn = [&](const char* problem) {
      add({"call limit", State::kWarning, std::string(kCallLimitVariable) + "=" + word + problem,
           std::string("unset ") + kCallLimitVariable});
    };
    if (!word.empty() && !isLimit) warn(" is not a positive number of milliseconds; 30 s count");
    if (isLimit && *limit > kLongestCallLimitMs) warn(" is more than a day; a day counts");
    const long long chosen = isLimit ? std::min(*limit, kCallLimitMs) : kCallLimitMs;
    setenv(kCallLimitVariable, std::to_string(chosen).c_str(), 1);
  }

  // Whether a device lives there.
  bool lookAtDirectory() {
    const std::string& path = m_directory.path;
    const bool chosen = m_directory.chosenBy.find(' ') == std::string::npos;
    const std::string what =
        path + (chosen ? ", from " + m_directory.chosenBy : ", because " + m_directory.chosenBy + " says another");
    const auto fail = [&](const char* name, const std::string& message, const std::string& advice) {
      add({name, State::kFailure, message, advice, {}, kNoDevice, {}, path});
    };
    const Problem unusable = directoryProblem(path);
    const char* const given = std::getenv("ORVEL_RUNTIME_DIR");
    if (!unusable.what.empty()) {
      fail("directory", what + ": " + unusable.what, unusable.advice);
    } else if (given != nullptr && *given != '\0' && *given != '/') {
      add({"directory", State::kWarning, what + ": it is another one in each working directory",
           "export ORVEL_RUNTIME_DIR=\"" + path + "\""});
    } else {
      add({"directory", State::kOk, what});
    }
    if (unusable.what.empty()) {
      const Problem dead = deviceProblem(path);
      if (dead.what.empty()) {
        add({"device", State::kOk, "one lives there"});
        return true;
      }
      fail("device", dead.what, dead.advice);
    }
    for (const std::string& other : otherDevices(path)) {
      add({"elsewhere", State::kWarning, "a device lives in " + other, "export ORVEL_RUNTIME_DIR=" + other});
    }
    return false;
  }

  void lookAtServices() {
    if (!m_session.open()) return;
    for (const Patient& patient : patients()) {
      const std::string name = patient.name();
      const std::string id = patient.id();
      const pid_t server = serverOf(m_directory.path, name);
      const auto fail = [&](const std::string& message, const std::string& advice, ExitStatus status) {
        add({id, State::kFailure, name + message, advice, {}, status, name, {}});
      };
      if (server == 0) {
        fail(" is dead: no process serves it", "orvel-sim restart " + id, kNotBound);
      } else if (isStopped(server)) {
        const std::string process = std::to_string(server);
        fail(" hangs: process " + process + " is stopped", "kill -CONT " + process, kTimedOut);
      } else if (!m_session.client().waitFor(patient.service, orvel::service_apis::LinkState::kUp, kCallLimit)) {
        fail(" hangs: it cannot be bound", "orvel-sim restart " + id, kTimedOut);
      } else if (patient.command != nullptr) {
        ask(patient);
      } else {
        add({id, State::kOk, name + " is bound; every question would change something"});
      }
    }
  }

  void ask(const Patient& patient) {
    const std::string name = patient.name();
    const std::string id = patient.id();
    std::array<Milliseconds, kCalls> times{};
    for (Milliseconds& time : times) {
      const auto start = std::chrono::steady_clock::now();
      const auto answer = m_session.call(id, patient.service, patient.ask);
      time = std::chrono::steady_clock::now() - start;
      const auto* failure = std::get_if<Failure>(&answer);
      if (failure == nullptr) continue;
      const bool hangs = failure->exitStatus == kTimedOut;
      const std::string advice = hangs ? "orvel-sim hang " + id + " off; orvel-sim restart " + id
                                       : std::string("orvelctl --log-level error ") + patient.command;
      const char* const message = hangs                              ? " hangs: it does not answer"
                                  : failure->exitStatus == kNotBound ? " has died meanwhile"
                                                                     : " answers with an error";
      return add({id, State::kFailure, name + message, advice, {}, failure->exitStatus, name, {}});
    }
    std::nth_element(times.begin(), times.begin() + kCalls / 2, times.end());
    const Milliseconds median = times[kCalls / 2];
    std::ostringstream message;
    message << name << " answers in " << std::fixed << std::setprecision(2) << median.count() << " ms";
    const bool slow = median > kSlow;
    add({id, slow ? State::kWarning : State::kOk, message.str() + (slow ? ", which is slow" : ""),
         slow ? "orvel-sim traffic --past" : "", median.count()});
  }

  void report() {
    std::ostringstream text;
    Json list = Json::array();
    for (const Check& check : m_checks) {
      constexpr const char* kStates[] = {"ok", "warning", "failure"};
      constexpr const char* kMarks[] = {"ok  ", "warn", "FAIL"};
      constexpr Colour kColours[] = {Colour::kGreen, Colour::kYellow, Colour::kRed};
      const auto state = static_cast<std::size_t>(check.state);
      Json object = {{"name", check.name}, {"state", kStates[state]}, {"message", check.message}};
      if (!check.advice.empty()) object["advice"] = check.advice;
      if (check.milliseconds) object["milliseconds"] = *check.milliseconds;
      list.push_back(std::move(object));
      text << (text.tellp() == 0 ? "" : "\n") << orvel::cli::coloured(STDOUT_FILENO, kColours[state], kMarks[state])
           << "  " << std::left << std::setw(13) << check.name << ' ' << orvel::cli::printable(check.message);
      if (!check.advice.empty()) text << "\n      try: " << check.advice;  // to be typed as it is
    }
    m_session.printAsIs({{"checks", std::move(list)}}, text.str());
    // Without a device nothing else counts, and what is dead is worse than what hangs.
    for (const int status : {kNoDevice, kNotBound, kTimedOut, kFailed}) {
      for (const Check& check : m_checks) {
        if (check.state != State::kFailure || check.exitStatus != status) continue;
        m_session.keep({status, check.name + ": " + check.message, check.name, check.service, check.directory});
      }
    }
  }

  Session& m_session;
  const DeviceDirectory m_directory;
  std::vector<Check> m_checks;
};

}  // namespace

const char kDoctorFooter[] =
    R"(It looks at the libraries in use, the directory in which a device is looked for, whether one lives there, and
its eight services, which it asks what changes nothing, each for a second at most. Below a problem stands what to try.

The exit status is that of the worst: 3 no device, 5 a service is dead, 4 one does not answer, 1 one answers with an
error; 0 when there is no FAIL. It takes 30 seconds at most, unless --timeout says otherwise.)";

void diagnose(Session& session) {
  Examination(session).run();
}

}  // namespace orvelctl

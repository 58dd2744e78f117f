#include "tools/orvel-sim/verbs/WaitVerb.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/TrafficFilter.h"
#include "tools/cli/Options.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/TrafficConditions.h"

namespace orvel::sim {
namespace {

constexpr char kWaitFooter[] = R"(
A CALL is call=SERVICE.METHOD, with * for any characters; all must come, in any order. Those of the past count with
--last. What is true of the device, such as screen=on, is waited for by orvelctl wait.

Examples:
  orvel-sim wait call=delegate.getDeviceName --timeout 5
  orvel-sim wait 'call=events.*' --last 20

The exit status is 0 when all have come and 4 when the time is over.)";

struct WaitOptions {
  std::vector<std::string> calls;
  std::uint64_t last = 0;
  double limit = 0;  // seconds; 0: none
  bool json = false;
};

// One call that is waited for.
struct Awaited {
  std::string name;
  TrafficFilter filter;
};

std::vector<Awaited> readCalls(const std::vector<std::string>& words) {
  std::vector<Awaited> awaited;
  for (const std::string& word : words) {
    const std::string prefix = "call=";
    if (word.rfind(prefix, 0) != 0 || word == prefix) {
      throw CLI::ValidationError("wait",
                                 "expected call=SERVICE.METHOD, not '" + word + "'; orvelctl wait waits for all else");
    }
    TrafficConditions conditions;
    conditions.names = {word.substr(prefix.size())};
    awaited.push_back({conditions.names.front(), filterOf(conditions)});
  }
  return awaited;
}

void show(const Json& entry, bool asJson) {
  if (asJson) return print(cli::jsonText(entry));
  print(TrafficFacts(entry).both + ", process " + std::to_string(entry.value("pid", 0)));
}

void waitForCalls(const WaitOptions& options) {
  std::vector<Awaited> awaited = readCalls(options.calls);
  std::optional<TimeLimit> limit;
  if (options.limit > 0) limit.emplace(std::chrono::duration<double>(options.limit));
  try {
    Control control = Control::connect();
    const Json now = control.send({{"order", "traffic"}, {"after", UINT64_MAX}, {"wait", false}});
    const auto newest = now.at("newest").get<std::uint64_t>();
    std::uint64_t seen = newest - std::min(newest, options.last);
    while (!awaited.empty()) {
      const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", true}});
      for (const Json& entry : answer.at("entries")) {
        seen = entry.at("number");
        const auto fits = [&](const Awaited& each) { return each.filter.matches(entry); };
        const auto rest = std::remove_if(awaited.begin(), awaited.end(), fits);
        if (rest != awaited.end()) show(entry, options.json);
        awaited.erase(rest, awaited.end());
      }
      if (answer.at("entries").empty()) seen = std::max(seen, answer.at("newest").get<std::uint64_t>());
    }
  } catch (const TimedOut&) {
    std::string missing;
    for (const Awaited& each : awaited) missing += (missing.empty() ? "" : ", ") + each.name;
    throw TimedOut("wait: timed out without a call of " + missing);
  }
}

}  // namespace

void addWaitVerb(CLI::App& app) {
  const auto options = std::make_shared<WaitOptions>();
  CLI::App* verb = app.add_subcommand("wait", "Wait until clients have made a call");
  verb->add_option("calls", options->calls, "call=SERVICE.METHOD")->required()->type_name("");
  cli::asCount(verb->add_option("--last", options->last, "so many of the newest that are over count too"));
  cli::inSeconds(verb->add_option("--timeout", options->limit, "give up after so many seconds (default: never)"));
  verb->add_flag("--json", options->json, "one JSON object per call");
  verb->footer(kWaitFooter + 1);
  verb->callback([options] { waitForCalls(*options); });
}

}  // namespace orvel::sim

#include "tools/orvel-sim/verbs/TrafficConditions.h"

#include <charconv>
#include <string>
#include <system_error>
#include <utility>

#include "tools/cli/Options.h"
#include "tools/cli/Text.h"

namespace orvel::sim {

std::shared_ptr<TrafficConditions> addTrafficConditions(CLI::App& verb) {
  auto wanted = std::make_shared<TrafficConditions>();
  verb.add_option("name", wanted->names,
                  "only these: SERVICE, SERVICE.METHOD, METHOD or a notification; * stands for any")
      ->type_name("");
  verb.add_option("--not", wanted->notNames, "all but these, named likewise; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  verb.add_option("--client", wanted->clients, "only of this client: its program or process; may be repeated")
      ->type_name("NAME|PID")
      ->allow_extra_args(false);
  verb.add_flag("--failed", wanted->failed, "only what ended without a result, or did not arrive");
  verb.add_flag("--faulted", wanted->faulted, "only what a fault of the device has changed");
  const auto isTime = [](const std::string& word) {
    double time = -1;
    const auto [read, error] = std::from_chars(word.data(), word.data() + word.size(), time);
    const bool good = error == std::errc() && read == word.data() + word.size() && time >= 0;
    return good ? std::string() : "'" + word + "' is not a number of milliseconds from 0";
  };
  verb.add_option("--slower", wanted->slowerThan, "only what took longer than so many milliseconds")
      ->check(isTime, "", "")
      ->type_name("MS");
  return wanted;
}

CLI::Option* addLast(CLI::App& verb, std::uint64_t& last, const std::string& about) {
  return cli::asCount(verb.add_option("--last", last, about), 1)->type_name("N");
}

TrafficFilter filterOf(const TrafficConditions& conditions) {
  try {
    return TrafficFilter(conditions);
  } catch (const UnknownName& error) {
    throw ScenarioError(error.what() + cli::didYouMean(error.name, error.known));
  }
}

void Newest::add(Json line) {
  if (!line.contains("gap")) ++m_entries;
  m_lines.push_back(std::move(line));
  bool dropped = false;
  for (; m_entries > m_most; m_lines.pop_front()) {
    if (!m_lines.front().contains("gap")) --m_entries;
    dropped = true;
  }
  if (dropped) m_tellsBeginning = false;
}

std::deque<Json> Newest::take() {
  while (!m_tellsBeginning && !m_lines.empty() && m_lines.front().contains("gap")) m_lines.pop_front();
  m_entries = 0;
  return std::exchange(m_lines, {});
}

}  // namespace orvel::sim

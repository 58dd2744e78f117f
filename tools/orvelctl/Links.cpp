#include "Links.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LogWatch.h"
#include "Reason.h"
#include "tools/cli/Options.h"

namespace orvelctl {
namespace {

using orvel::service_apis::kAllServices;
using orvel::service_apis::lastCall;
using orvel::service_apis::Link;
using orvel::service_apis::LinkState;
using orvel::service_apis::Subscription;
using Clock = std::chrono::steady_clock;

constexpr LinkState kAwaited[] = {LinkState::kUp, LinkState::kAway, LinkState::kGivenUp};

std::chrono::nanoseconds inNanoseconds(Seconds time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time);
}

std::string nameOfService(Service service) {
  return nameOf(service);
}

void show(Session& session, const Link& link) {
  std::ostringstream text;
  text << std::left << std::setw(14) << nameOf(link.service) << std::setw(11) << nameOf(link.state) << " epoch "
       << link.epoch;
  if (*link.cause != '\0') text << "  " << link.cause;
  session.print(objectOf(link), text.str());
}

// Services that are there are found at once; `patience` is for the others.
void showLinks(Session& session, double patience) {
  const auto end = Clock::now() + inNanoseconds(Seconds(patience));
  for (const Service service : kAllServices) {
    const std::chrono::nanoseconds left = std::max(end - Clock::now(), Clock::duration(0));
    static_cast<void>(session.client().waitFor(service, LinkState::kUp, left));
    show(session, session.client().state(service));
  }
}

struct WaitOptions {
  std::string service;
  std::string state = nameOf(LinkState::kUp);
  double for_seconds = 1e6;  // eleven days
};

void waitForLink(Session& session, const WaitOptions& options) {
  Client& client = session.client();
  const Service service = *std::find_if(kAllServices.begin(), kAllServices.end(),
                                        [&](Service each) { return options.service == nameOf(each); });
  const LinkState state = *std::find_if(std::begin(kAwaited), std::end(kAwaited),
                                        [&](LinkState each) { return options.state == wordOf(nameOf(each)); });
  followService(boundName(service));
  // The client gives up after five minutes; this waits for as long as it was told.
  const Subscription again = client.subscribeLink(service, [&](const Link& link) {
    if (link.state == LinkState::kGivenUp && state != LinkState::kGivenUp) client.rebind(service);
  });
  const Clock::time_point start = Clock::now();
  const auto wait = [&] { return client.waitFor(service, state, inNanoseconds(Seconds(options.for_seconds))); };
  if (wait()) return show(session, client.state(service));
  if (session.status() != kSuccess) return;  // interrupted, which is why
  Failure failure = failureOf("wait for " + options.service, lastCall(), Clock::now() - start);
  failure.message += ": " + lastCall().text;
  session.fail(std::move(failure));
}

}  // namespace

Json objectOf(const Link& link) {
  Json object = {{"service", nameOf(link.service)},
                 {"state", wordOf(nameOf(link.state))},
                 {"epoch", link.epoch},
                 {"held", link.held},
                 {"restored", link.restored},
                 {"refused", link.refused},
                 {"networkLost", link.network_lost}};
  if (*link.cause != '\0') object["cause"] = link.cause;
  return object;
}

void addLinkCommands(Commands& commands) {
  const auto patience = std::make_shared<double>(1);
  CLI::App* links = commands.add("links", "Show how the client stands with each service, one a line",
                                 [patience](Session& session) { showLinks(session, *patience); });
  orvel::cli::inSeconds(links->add_option("--for", *patience, "wait so long for services that are not there"))
      ->capture_default_str();

  const auto options = std::make_shared<WaitOptions>();
  CLI::App* wait = commands.add("wait", "Wait until a service is up, or in another state",
                                [options](Session& session) { waitForLink(session, *options); });
  std::vector<std::string> services(kAllServices.size());
  std::transform(kAllServices.begin(), kAllServices.end(), services.begin(), nameOfService);
  wait->add_option("service", options->service)->required()->check(CLI::IsMember(services));
  std::vector<std::string> states;
  for (const LinkState state : kAwaited) states.push_back(wordOf(nameOf(state)));
  wait->add_option("--state", options->state, "the state that is waited for")
      ->check(CLI::IsMember(states))
      ->capture_default_str();
  orvel::cli::inSeconds(wait->add_option("--for", options->for_seconds, "wait so long (default: for ever)"));
  wait->footer(
      "A service that is there is \"up\", one that died since is \"away\". Without \"up\" within five minutes it is\n"
      "\"given-up\", and looked for anew. When the time is over the exit status is 4.");
}

}  // namespace orvelctl

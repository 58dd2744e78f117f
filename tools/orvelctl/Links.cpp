#include "Links.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <memory>
#include <sstream>

#include "tools/cli/Options.h"

namespace orvelctl {
namespace {

using orvel::service_apis::kAllServices;
using orvel::service_apis::Link;
using orvel::service_apis::LinkState;
using Clock = std::chrono::steady_clock;

// Services that are there are found at once; `patience` is for the others.
void showLinks(Session& session, double patience) {
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(patience));
  for (const Service service : kAllServices) {
    const std::chrono::nanoseconds left = std::max(end - Clock::now(), Clock::duration(0));
    static_cast<void>(session.client().waitFor(service, LinkState::kUp, left));
    showLink(session, session.client().state(service));
  }
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

void showLink(Session& session, const Link& link) {
  std::ostringstream text;
  text << std::left << std::setw(14) << nameOf(link.service) << std::setw(11) << nameOf(link.state) << " epoch "
       << link.epoch;
  if (*link.cause != '\0') text << "  " << link.cause;
  session.print(objectOf(link), text.str());
}

void addLinkCommands(Commands& commands) {
  const auto patience = std::make_shared<double>(1);
  CLI::App* links = commands.add("links", "Show how the client stands with each service, one a line",
                                 [patience](Session& session) { showLinks(session, *patience); });
  orvel::cli::inSeconds(links->add_option("--for", *patience, "wait so long for services that are not there"))
      ->capture_default_str();
}

}  // namespace orvelctl

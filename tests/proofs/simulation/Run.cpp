#include "Run.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "Model.h"
#include "World.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::fuzz {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace)

// The client is the process's one, and remembers whether the assistant is connected. Tells it that it is.
void connect_assistant() {
  auto& client = service_apis::OrvelDelegateClient::getClient();
  InprocessVesk vesk;
  const VirtualClock clock;
  std::weak_ptr<const void> receiver;
  for (const char* name : kServices) vesk.add_service(name);
  vesk.add_service(kServices[kDelegate], [&](const Transaction& call) {
    receiver = call.transfers.front();
    return Reply{Bytes().i32(0), 0};
  });
  client.initialize();
  client.registerForMaroConnectivityChange([](bool) {});
  Bytes message = Bytes().i32(0).i32(0).i32(0).utf16("d").i32(1).i32(4).utf16("a").null().null().null().i32(0);
  vesk.send(Target(receiver), 1, message.i32(1).i32(1).utf16("com.quarlo.speech.EXTRA_CONNECTIVITY").i32(1).i32(1));
  vesk.drain();
  client.shutdown();
  if (!client.isMaroConnected()) std::abort();
}

// In which order a table is published again is nobody's business.
std::vector<std::string> in_any_order(std::vector<std::string> bindings) {
  const auto is_name = [](const std::string& binding) { return binding[0] == '='; };
  for (auto at = bindings.begin(); at != bindings.end();) {
    const auto begin = std::find_if(at, bindings.end(), is_name);
    at = std::find_if_not(begin, bindings.end(), is_name);
    std::sort(begin, at);
  }
  return bindings;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  return all;
}

std::string verdict(const World& world, const Trace& trace) {
  Model model(trace);
  try {
    model.check();
  } catch (const Mismatch& mismatch) {
    const bool more = mismatch.at < trace.events.size();
    return shown(trace, mismatch.at) + "step " + std::to_string(mismatch.at) + "\n  expected: " + mismatch.expected +
           "\n  seen:     " + (more ? describe(trace.events[mismatch.at], trace) : "the end") + "\n";
  }
  std::ostringstream failures;
  const std::vector<std::string> bindings = in_any_order(world.bindings());
  if (const auto promised = in_any_order(model.bindings()); bindings != promised)
    failures << "bound, unbound, published\n  expected:\n" << joined(promised) << "  seen:\n" << joined(bindings);
  Live left;
  left.payloads = left.buffers = model.forgotten();
  left.lookups = model.late_handles();
  if (!(world.live() == left)) failures << "left\n  expected: " << left << "\n  seen:     " << world.live() << "\n";
  if (world.callbacks() != 0) failures << world.callbacks() << " callbacks outlive the client\n";
  if (service_apis::OrvelDelegateClient::getClient().isMaroConnected() != model.maro_connected())
    failures << "the assistant's connection\n  expected: " << shown(model.maro_connected()) << "\n";
  if (failures.str().empty()) return {};
  return shown(trace, trace.events.size()) + failures.str();
}

}  // namespace

std::string shown(const Trace& trace, std::size_t end) {
  std::string text;
  for (std::size_t n = 0; n < std::min(end, trace.events.size()); ++n)
    text += std::to_string(n) + ": " + describe(trace.events[n], trace) + "\n";
  return text;
}

std::string run(Choices& choices, Trace& trace, bool lines) {
  std::string failure;
  {
    World world(choices, trace, lines);
    world.run();
    failure = verdict(world, trace);
  }
  if (!service_apis::OrvelDelegateClient::getClient().isMaroConnected()) connect_assistant();
  return failure;
}

}  // namespace orvel::fuzz

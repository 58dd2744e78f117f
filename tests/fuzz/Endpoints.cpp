// What services send to each endpoint of the library: which endpoint, the kind of the call and its code come from the
// input, and then the message.
#include <tuple>
#include <vector>

#include "Match.h"
#include "services/BroadcastReceiverEndpoint.h"
#include "services/NetworkCallbackEndpoint.h"
#include "services/OrvelSimDirectiveCallbackEndpoint.h"
#include "services/OrvelSimEventStatusCallbackEndpoint.h"
#include "services/SettingsReceiverEndpoint.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

struct Message {
  bool twoWay;
  unsigned code;
  Input bytes;
};

// Calls an endpoint as libvesk does. Its callback must have been called once for a message that is news, with what
// `expect` finds in the message, and not at all for a call of the kind that the endpoint does not serve.
template <typename Endpoint, typename... Values, typename Expect>
void check(const Message& message, bool servesTwoWay, bool isNews, const Expect& expect) {
  std::vector<std::tuple<Values...>> heard;
  const auto endpoint =
      vesk::make_endpoint<Endpoint>([&heard](const Values&... values) { heard.emplace_back(values...); });
  const orvel::test::BufferPtr buffer = bufferOf(message.bytes);
  const orvel::test::PayloadPtr reply(vesk_payload_alloc());
  vesk_endpoint* const record = endpoint->get_endpoint();
  const std::uint64_t before = allocated();
  const int result = message.twoWay
                         ? record->fn->endpoint_call(nullptr, record, message.code, nullptr, buffer.get(), reply.get())
                         : record->fn->endpoint_call_oneway(nullptr, record, message.code, nullptr, buffer.get());
  require(allocated() - before <= allowedFor(message.bytes.size), "a message costs a small multiple of its size");
  require(vesk_payload_get_position(reply.get()) == 0, "endpoints answer with nothing");
  const bool served = message.twoWay == servesTwoWay;
  require(result == (served ? 0 : 1), "an endpoint says which calls it does not serve");
  require(heard.size() == (served && isNews ? 1 : 0), "a callback is called once for each message that is news");
  Match wire(message.bytes);
  if (!heard.empty()) std::apply([&](const Values&... values) { expect(wire, values...); }, heard.front());
  wire.expectSameEnd(buffer.get());
}

void checkSettings(const Message& message) {
  check<SettingsReceiverEndpoint, std::string, std::string>(
      message, true, true, [](Match& wire, const std::string& key, const std::string& value) {
        wire.skipHeader();
        wire.expectAll(key, value);
      });
}

void checkBroadcast(const Message& message) {
  check<BroadcastReceiverEndpoint, std::string, std::string, Bundle>(
      message, false, true, [](Match& wire, const std::string& action, const std::string& data, const Bundle& extras) {
        wire.skipHeader();
        wire.expectBroadcast(action, data, extras);
      });
}

void checkNetwork(const Message& message) {
  const bool isNews = message.code == 1 || message.code == 6;
  check<NetworkCallbackEndpoint, bool>(message, false, isNews, [&message](Match&, bool isConnected) {
    require(isConnected == (message.code == 1), "1 is there and 6 is lost");
  });
}

void checkDirective(const Message& message) {
  check<OrvelSimDirectiveCallbackEndpoint, OrvelSimDirective>(
      message, false, true, [](Match& wire, const OrvelSimDirective& directive) { wire.expect(directive); });
}

void checkEventStatus(const Message& message) {
  const auto expect = [](Match& wire, OrvelSimEventResult_t result) {
    wire.skipHeader();
    wire.expect(result);
  };
  check<OrvelSimEventStatusCallbackEndpoint, OrvelSimEventResult_t>(message, false, true, expect);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr void (*kChecks[])(const Message&) = {checkSettings, checkBroadcast, checkNetwork, checkDirective,
                                                 checkEventStatus};
  Choices choices({data, size});
  const std::uint8_t which = choices.byte();
  const std::uint8_t kind = choices.byte();
  const auto code = choices.number<std::uint16_t>();
  kChecks[which % std::size(kChecks)]({kind % 2 == 1, code, choices.rest()});
  return 0;
}

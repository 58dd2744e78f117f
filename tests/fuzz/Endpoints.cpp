// What services send to each endpoint of the library: which endpoint, the code and the kind of the call come from the
// input, and then the message.
#include <optional>

#include "Assistant.h"
#include "orvel/OrvelIntent.h"
#include "services/BroadcastReceiverEndpoint.h"
#include "services/Incoming.h"
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

void skipHeader(Walk& wire) {
  for (int word = 0; word < 3; ++word) wire.i32();
  wire.text();
}

// Calls an endpoint as libvesk does, and `expect` with what its callback must have been called with, from the message.
// `calls` counts those; an endpoint serves one kind of call and leaves the other alone.
template <typename Endpoint, typename Callback, typename Expect>
void check(const Message& message, bool servesTwoWay, const int& calls, Callback callback, const Expect& expect) {
  const auto endpoint = vesk::make_endpoint<Endpoint>(std::move(callback));
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
  Walk wire(message.bytes);
  require(calls == (served ? expect(wire) : 0), "a callback is called once for each message that is news");
  wire.expectSameEnd(buffer.get());
}

void checkSettings(const Message& message) {
  int calls = 0;
  std::string key;
  std::string value;
  const auto callback = [&](const std::string& theKey, const std::string& theValue) {
    ++calls;
    key = theKey;
    value = theValue;
  };
  check<SettingsReceiverEndpoint>(message, true, calls, callback, [&](Walk& wire) {
    skipHeader(wire);
    wire.expectAll(key, value);
    return 1;
  });
}

void checkBroadcast(const Message& message) {
  int calls = 0;
  OrvelIntent received;
  const auto callback = [&](const std::string& action, const std::string& data, const Bundle& extras) {
    ++calls;
    received.action = action;
    received.data = data;
    received.extras = extras;
  };
  check<BroadcastReceiverEndpoint>(message, false, calls, callback, [&](Walk& wire) {
    skipHeader(wire);
    // What the callback does not get is filled in as it stands on the wire.
    const orvel::test::BufferPtr again = bufferOf(message.bytes);
    skip_header(again.get());
    const OrvelIntent whole = OrvelIntent::read(again.get());
    received.text3 = whole.text3;
    received.package = whole.package;
    received.component = whole.component;
    wire.expect(received);
    return 1;
  });
}

void checkNetwork(const Message& message) {
  int calls = 0;
  std::optional<bool> connected;
  const auto callback = [&](bool isConnected) {
    ++calls;
    connected = isConnected;
  };
  check<NetworkCallbackEndpoint>(message, false, calls, callback, [&](Walk&) {
    const bool news = message.code == 1 || message.code == 6;
    require(!news || connected == (message.code == 1), "1 is there and 6 is lost");
    return news ? 1 : 0;
  });
}

void checkDirective(const Message& message) {
  int calls = 0;
  OrvelSimDirective received;
  const auto callback = [&](const OrvelSimDirective& directive) {
    ++calls;
    received = directive;
  };
  check<OrvelSimDirectiveCallbackEndpoint>(message, false, calls, callback, [&](Walk& wire) {
    expectDirective(wire, received);
    return 1;
  });
}

void checkEventStatus(const Message& message) {
  int calls = 0;
  OrvelSimEventResult_t received = kSuccess;
  const auto callback = [&](const OrvelSimEventResult_t& result) {
    ++calls;
    received = result;
  };
  check<OrvelSimEventStatusCallbackEndpoint>(message, false, calls, callback, [&](Walk& wire) {
    skipHeader(wire);
    expectResult(wire, received);
    return 1;
  });
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

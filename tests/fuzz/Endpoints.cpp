// What services send to each endpoint of the library: which endpoint, the kind of the call and its code come from the
// input, and then the message.
#include <string>

#include "Reading.h"
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

// Calls an endpoint as libvesk does. Its callback must have been called once for a message that is news, and not at all
// for a call of the kind that the endpoint does not serve.
template <typename Endpoint, typename... Values>
void check(const Message& message, bool servesTwoWay, bool isNews) {
  const bool served = message.twoWay == servesTwoWay;
  checkReading(message.bytes, [&](vesk_buffer* buffer) {
    int heard = 0;
    const auto endpoint = vesk::make_endpoint<Endpoint>([&heard](const Values&...) { ++heard; });
    const orvel::test::PayloadPtr reply(vesk_payload_alloc());
    vesk_endpoint* const record = endpoint->get_endpoint();
    const int result = message.twoWay
                           ? record->fn->endpoint_call(nullptr, record, message.code, nullptr, buffer, reply.get())
                           : record->fn->endpoint_call_oneway(nullptr, record, message.code, nullptr, buffer);
    require(vesk_payload_get_position(reply.get()) == 0, "endpoints answer with nothing");
    require(result == (served ? 0 : 1), "an endpoint says which calls it does not serve");
    require(heard == (served && isNews ? 1 : 0), "a callback is called once for each message that is news");
  });
}

void checkOne(unsigned which, const Message& message) {
  const bool isNetworkNews = message.code == 1 || message.code == 6;
  if (which == 0) check<SettingsReceiverEndpoint, std::string, std::string>(message, true, true);
  if (which == 1) check<BroadcastReceiverEndpoint, std::string, std::string, Bundle>(message, false, true);
  if (which == 2) check<NetworkCallbackEndpoint, bool>(message, false, isNetworkNews);
  if (which == 3) check<OrvelSimDirectiveCallbackEndpoint, OrvelSimDirective>(message, false, true);
  if (which == 4) check<OrvelSimEventStatusCallbackEndpoint, OrvelSimEventResult_t>(message, false, true);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  const std::uint8_t which = choices.byte();
  const std::uint8_t kind = choices.byte();
  const auto code = choices.number<std::uint16_t>();
  checkOne(which % 5, {kind % 2 == 1, code, choices.rest()});
  return 0;
}

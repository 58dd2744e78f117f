// A client of the library as the platform builds it. Exceptions pass through the library and leave no lock held: if one
// were, shutdown() would not return.
#include <cstdio>
#include <stdexcept>

#include "orvel/OrvelDelegateClient.h"
#include "support/Services.h"
#include "support/Vesk.h"

using namespace orvel::test;  // NOLINT(google-build-using-namespace)

int main() {
  InprocessVesk vesk;
  const Bytes answer = Bytes().i32(0).utf16("notanumber");
  for (const char* name : kServices) {
    vesk.add_service(name, [&answer](const Transaction&) { return Reply{answer, 0}; });
  }
  auto& client = orvel::service_apis::OrvelDelegateClient::getClient();
  const bool initialized = client.initialize();
  bool thrown = false;
  try {
    client.getSecureSettingInt("volume", 5);
  } catch (const std::invalid_argument&) {
    thrown = true;
  }
  const bool answered = client.getDeviceName() == "notanumber";
  client.shutdown();
  if (!initialized) std::puts("initialize() failed");
  if (!thrown) std::puts("getSecureSettingInt() did not throw");
  if (!answered) std::puts("after the exception a call gives nothing");
  return initialized && thrown && answered ? 0 : 1;
}

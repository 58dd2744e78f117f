// An intent as it arrives with a broadcast.
#include "Walk.h"
#include "orvel/OrvelIntent.h"

using orvel::service_apis::OrvelIntent;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orvel::fuzz::checkReader({data, size}, OrvelIntent::read,
                           [](orvel::fuzz::Walk& wire, const OrvelIntent& intent) { wire.expect(intent); });
  return 0;
}

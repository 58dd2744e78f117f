// What the voice assistant sends: directives, and what became of an event.
#include "Assistant.h"

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkReader({data, size}, orvel::service_apis::OrvelSimDirective::read, expectDirective);
  checkReader({data, size}, orvel::service_apis::OrvelSimEventResult::read, expectResult);
  return 0;
}

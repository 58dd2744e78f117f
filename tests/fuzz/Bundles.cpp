// Both kinds of bundle, out of the same bytes.
#include "Walk.h"
#include "orvel/Bundle.h"
#include "parcel/OrvelBundle.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkReader({data, size}, Bundle::read, [](Walk& wire, const Bundle& bundle) { wire.expect(bundle); });
  checkReader({data, size}, readInto<OrvelBundle>, [](Walk& wire, const Outcome<OrvelBundle>& outcome) {
    require(outcome.good, "metadata fail for a null buffer only");
    wire.expect(outcome.target);
  });
  return 0;
}

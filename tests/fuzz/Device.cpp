// What is known of the device and of a network.
#include "Walk.h"
#include "parcel/DeviceInfo.h"
#include "parcel/NetworkInfo.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

void expectDevice(Walk& wire, const DeviceInfo& info) {
  wire.when(wire.marks(1))
      .expectAll(info.info1, info.info2, info.info3, info.deviceType, info.info5, info.info6, info.info7, info.info8,
                 info.info9, info.info10);
}

void expectNetwork(Walk& wire, const NetworkInfo& info) {
  wire.when(wire.marks(1))
      .expectAll(info.int1, info.int2, info.name1, info.name2, info.state, info.name4, info.int3, info.int4, info.int5,
                 info.int6, info.name5, info.name6);
  require(info.isConnected() == (info.state == "CONNECTED"), "only one state is connected");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkReader({data, size}, DeviceInfo::read, expectDevice);
  checkReader({data, size}, NetworkInfo::read, expectNetwork);
  return 0;
}

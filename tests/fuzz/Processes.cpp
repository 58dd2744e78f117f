// A running process, alone and as an array.
#include "Walk.h"
#include "parcel/RunningAppProcessInfo.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

void expectProcess(Walk& wire, const RunningAppProcessInfo& info) {
  wire.expectAll(info.processName, info.processInt1, info.processInt2, info.processList, info.processInt3,
                 info.processInt4, info.importance, info.processInt6, info.processInt7, info.processInt8,
                 info.component, info.processInt9, info.processInt10, info.isFocused, info.processLong);
  require(info.unreadList.empty(), "what is not on the wire stays empty");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkRecord<RunningAppProcessInfo>({data, size}, 1, expectProcess);
  checkArray<RunningAppProcessInfoArray>({data, size}, 1, expectProcess);
  return 0;
}

// A whole reply: the exception in front of it, and what a proxy makes of the rest.
#include "InstantVesk.h"
#include "Walk.h"
#include "services/IDelegateService.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)

constexpr unsigned kGetDeviceName = 33;

orvel::service_apis::IDelegateService& proxy() {
  static void* runtime = nullptr;
  static auto& instance = *new orvel::service_apis::IDelegateService((vesk_get_runtime(&runtime), runtime));
  return instance;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  proxy();  // bound before anything is weighed
  bench::answerWith(kGetDeviceName, data, size);
  const std::uint64_t before = allocated();
  const std::string name = proxy().getDeviceName();
  require(allocated() - before <= allowedFor(size), "a reply costs a small multiple of its size");

  Walk wire({data, size});
  const int exception = wire.i32();
  wire.when(exception == 0).expect(name);

  bench::answerWith(kGetDeviceName, "\0\0\0\0\1\0\0\0x\0\0", 12);
  require(proxy().getDeviceName() == "x", "the next call is none the worse");
  return 0;
}

// Every reader of the library, one after the other on the same input, and a reply as a proxy takes it apart. What each
// makes of a message is in the tests of src/parcel.
#include <string>

#include "InstantVesk.h"
#include "Reading.h"
#include "parcel/ApplicationInfo.h"
#include "parcel/DeviceInfo.h"
#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/NetworkInfo.h"
#include "parcel/OrvelActivityInfo.h"
#include "parcel/OrvelBundle.h"
#include "parcel/OrvelResolveInfo.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventResult.h"
#include "parcel/PackageInfo.h"
#include "parcel/RunningAppProcessInfo.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"
#include "services/IDelegateService.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

// An entry of a bundle takes three words at least.
constexpr std::size_t kSmallestEntry = 12;

// A reader that returns its value.
template <typename Reader>
void value(Input input) {
  checkReading(input, Reader::read);
}

// A reader that fills its caller's value.
template <typename Reader, typename Value = Reader>
void filled(Input input) {
  checkReading(input, [](vesk_buffer* buffer) {
    Value value{};
    Reader::read(buffer, value);
  });
}

template <typename Reader, typename Number>
void number(Input input) {
  checkReading(input, [](vesk_buffer* buffer) {
    Number number = 5;
    Reader::read(buffer, &number);
    require(vesk_buffer_last_error(buffer) == 0 || number == Number{}, "a failed read stores 0");
  });
}

void texts(Input input) {
  checkReading(input, [](vesk_buffer* buffer) {
    require(StringArray::read(buffer).size() <= 1000, "an array has no more than 1,000 texts");
  });
}

void bundle(Input input) {
  const std::string absent(input.size + 1, 'k');
  checkReading(input, [&](vesk_buffer* buffer) {
    const Bundle bundle = Bundle::read(buffer);
    require(bundle.size() * kSmallestEntry <= input.size, "no entry is made up");
    require(bundle.get(absent, 1) == 1 && bundle.get(absent, 2LL) == 2 && bundle.get(absent, absent) == absent,
            "what is absent has its default");
  });
}

void metadata(Input input) {
  const std::string absent(input.size + 1, 'k');
  checkReading(input, [&](vesk_buffer* buffer) {
    OrvelBundle metadata;
    require(OrvelBundle::read(buffer, metadata), "metadata fail for a null buffer only");
    require(metadata.size() <= 30 && metadata.size() * kSmallestEntry <= input.size, "no entry is made up");
    require(metadata.get(absent, 1) == 1 && metadata.get(absent, absent) == absent, "what is absent has its default");
  });
}

// The exception in front of a reply, and what a proxy makes of the rest.
void reply(Input input) {
  constexpr unsigned kGetDeviceName = 33;
  static void* runtime = nullptr;
  static auto& proxy = *new IDelegateService((vesk_get_runtime(&runtime), runtime));
  bench::answerWith(kGetDeviceName, input.data, input.size);
  const std::uint64_t before = allocated();
  const std::string name = proxy.getDeviceName();
  require(allocated() - before <= allowedFor(input.size), "a reply costs a small multiple of its size");
  require(name.empty() || Choices(input).number<int>() == 0, "an exception has no result");

  bench::answerWith(kGetDeviceName, "\0\0\0\0\1\0\0\0x\0\0", 12);
  require(proxy.getDeviceName() == "x", "the next call is none the worse");
}

constexpr void (*kChecks[])(Input) = {
    value<Int32>,
    number<Int64, long long>,
    number<Double, double>,
    value<String>,
    texts,
    bundle,
    metadata,
    value<OrvelIntent>,
    value<ComponentName>,
    filled<OrvelActivityInfo>,
    filled<OrvelResolveInfo>,
    filled<OrvelResolveInfoArray, OrvelResolveInfoArray::Records>,
    filled<ApplicationInfo>,
    filled<PackageInfo>,
    filled<RunningAppProcessInfo>,
    filled<RunningAppProcessInfoArray, RunningAppProcessInfoArray::Records>,
    value<DeviceInfo>,
    value<NetworkInfo>,
    value<OrvelSimDirective>,
    value<OrvelSimEventResult>,
    reply,
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const auto check : kChecks) check({data, size});
  return 0;
}

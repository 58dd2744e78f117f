// Every reader of the library, one after the other on the same input, and a reply as a proxy takes it apart.
#include <string>

#include "InstantVesk.h"
#include "Match.h"
#include "parcel/ApplicationInfo.h"
#include "parcel/DeviceInfo.h"
#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/NetworkInfo.h"
#include "parcel/OrvelActivityInfo.h"
#include "parcel/OrvelResolveInfo.h"
#include "parcel/PackageInfo.h"
#include "parcel/RunningAppProcessInfo.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"
#include "services/IDelegateService.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

// What a reader that fills its caller's record has done.
template <typename Target>
struct Outcome {
  Target target{};
  bool good = false;
};

template <typename Reader, typename Target = Reader>
Outcome<Target> readInto(vesk_buffer* buffer) {
  Outcome<Target> outcome;
  outcome.good = Reader::read(buffer, outcome.target);
  return outcome;
}

// A reader that returns its value.
template <typename Reader>
void value(Input input) {
  checkReader(input, Reader::read, [](Match& wire, const auto& read) { wire.expect(read); });
}

template <typename Reader, typename Number>
void number(Input input) {
  const auto read = [](vesk_buffer* buffer) {
    Number number = 5;
    require(Reader::read(buffer, &number), "a failed read stores 0");
    return number;
  };
  checkReader(input, read, [](Match& wire, Number value) { wire.expect(value); });
}

template <typename Record>
using ExpectMembers = void (*)(Match& wire, const Record& record);

// A reader that returns a record behind a mark, empty without it.
template <typename Record, ExpectMembers<Record> expectMembers>
void marked(Input input) {
  checkReader(input, Record::read,
              [](Match& wire, const Record& record) { expectMembers(wire.when(wire.mark()), record); });
}

// A reader that fills a record behind its marks.
template <typename Record, int marks, ExpectMembers<Record> expectMembers>
void filled(Input input) {
  checkReader(input, readInto<Record>, [](Match& wire, const Outcome<Record>& outcome) {
    const bool present = wire.mark(marks);
    require(outcome.good == present, "a record is read exactly behind its marks");
    expectMembers(wire.when(present), outcome.target);
  });
}

// Any number of them: absent ones are passed over, and the end of the buffer ends them.
template <typename Array, typename Record, int marks, ExpectMembers<Record> expectMembers>
void array(Input input) {
  using Records = typename Array::Records;
  checkReader(input, readInto<Array, Records>, [](Match& wire, const Outcome<Records>& outcome) {
    int left = wire.i32();
    for (const auto& record : outcome.target) {
      while (!wire.mark(marks)) require(!wire.failed(), "no record is made up");
      expectMembers(wire, *record);
      --left;
    }
    while (left > 0 && !wire.failed()) require(!wire.mark(marks), "no record is left out");
    require(outcome.good == (left <= 0), "an array that is cut short fails");
  });
}

// ---- The members, in the order of the wire ----

void application(Match& wire, const ApplicationInfo& info) {
  wire.expectAll(info.appString1, info.appString2, info.appString3, info.appString4, info.appString5, info.appString6,
                 info.appString7, info.appString8, info.appString9, info.appList1, info.appList2, info.appList3,
                 info.appInt1, info.appInt2, info.appInt3, info.appInt4, info.appInt5, info.appInt6, info.appFlag,
                 info.appInt7, info.appInt8, info.appInt9, info.appString10, info.appString11, info.appString12,
                 info.appInt10);
  wire.when(wire.mark()).expect(info.metaData);
}

void package(Match& wire, const PackageInfo& info) {
  wire.expectAll(info.packageName, info.versionCode, info.versionName, info.long1, info.long2);
  application(wire.when(wire.mark(2)), info.applicationInfo);
}

void activity(Match& wire, const OrvelActivityInfo& activity) {
  wire.expectAll(activity.packageName, activity.activityName);
}

void resolved(Match& wire, const OrvelResolveInfo& info) {
  activity(wire, info.activityInfo);
  wire.expectAll(info.resolveInt1, info.resolveInt2, info.resolveInt3, info.resolveInt4);
}

void process(Match& wire, const RunningAppProcessInfo& info) {
  wire.expectAll(info.processName, info.processInt1, info.processInt2, info.processList, info.processInt3,
                 info.processInt4, info.importance, info.processInt6, info.processInt7, info.processInt8,
                 info.component, info.processInt9, info.processInt10, info.isFocused, info.processLong);
  require(info.unreadList.empty(), "what is not on the wire stays empty");
}

void device(Match& wire, const DeviceInfo& info) {
  wire.expectAll(info.info1, info.info2, info.info3, info.deviceType, info.info5, info.info6, info.info7, info.info8,
                 info.info9, info.info10);
}

void network(Match& wire, const NetworkInfo& info) {
  wire.expectAll(info.int1, info.int2, info.name1, info.name2, info.state, info.name4, info.int3, info.int4, info.int5,
                 info.int6, info.name5, info.name6);
  require(info.isConnected() == (info.state == "CONNECTED"), "only one state is connected");
}

void metadata(Input input) {
  checkReader(input, readInto<OrvelBundle>, [](Match& wire, const Outcome<OrvelBundle>& outcome) {
    require(outcome.good, "metadata fail for a null buffer only");
    wire.expect(outcome.target);
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
  Match wire(input);
  const int exception = wire.i32();
  wire.when(exception == 0).expect(name);

  bench::answerWith(kGetDeviceName, "\0\0\0\0\1\0\0\0x\0\0", 12);
  require(proxy.getDeviceName() == "x", "the next call is none the worse");
}

constexpr void (*kChecks[])(Input) = {
    value<Int32>,
    number<Int64, long long>,
    number<Double, double>,
    value<String>,
    value<StringArray>,
    value<Bundle>,
    metadata,
    value<OrvelIntent>,
    value<ComponentName>,
    filled<OrvelActivityInfo, 2, activity>,
    filled<OrvelResolveInfo, 4, resolved>,
    array<OrvelResolveInfoArray, OrvelResolveInfo, 4, resolved>,
    filled<ApplicationInfo, 2, application>,
    filled<PackageInfo, 2, package>,
    filled<RunningAppProcessInfo, 1, process>,
    array<RunningAppProcessInfoArray, RunningAppProcessInfo, 1, process>,
    marked<DeviceInfo, device>,
    marked<NetworkInfo, network>,
    value<OrvelSimDirective>,
    value<OrvelSimEventResult>,
    reply,
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const auto check : kChecks) check({data, size});
  return 0;
}

// What names components: a component itself, and what an intent resolves to, alone and as an array.
#include "Walk.h"
#include "orvel/ComponentName.h"
#include "parcel/OrvelActivityInfo.h"
#include "parcel/OrvelResolveInfo.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

constexpr int kMarksOfActivity = 2;
constexpr int kMarksOfResolved = 2 + kMarksOfActivity;

void expectActivity(Walk& wire, const OrvelActivityInfo& activity) {
  wire.expectAll(activity.packageName, activity.activityName);
}

void expectResolved(Walk& wire, const OrvelResolveInfo& info) {
  expectActivity(wire, info.activityInfo);
  wire.expectAll(info.resolveInt1, info.resolveInt2, info.resolveInt3, info.resolveInt4);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input{data, size};
  checkReader(input, ComponentName::read, [](Walk& wire, const ComponentName& component) { wire.expect(component); });
  checkRecord<OrvelActivityInfo>(input, kMarksOfActivity, expectActivity);
  checkRecord<OrvelResolveInfo>(input, kMarksOfResolved, expectResolved);
  checkArray<OrvelResolveInfoArray>(input, kMarksOfResolved, expectResolved);
  return 0;
}

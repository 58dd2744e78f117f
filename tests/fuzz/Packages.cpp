// What is known of an application and of a package, which holds one.
#include "Walk.h"
#include "parcel/ApplicationInfo.h"
#include "parcel/PackageInfo.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)

constexpr int kMarks = 2;

void expectApplication(Walk& wire, const ApplicationInfo& info) {
  wire.expectAll(info.appString1, info.appString2, info.appString3, info.appString4, info.appString5, info.appString6,
                 info.appString7, info.appString8, info.appString9, info.appList1, info.appList2, info.appList3,
                 info.appInt1, info.appInt2, info.appInt3, info.appInt4, info.appInt5, info.appInt6, info.appFlag,
                 info.appInt7, info.appInt8, info.appInt9, info.appString10, info.appString11, info.appString12,
                 info.appInt10);
  wire.when(wire.marks(1)).expect(info.metaData);
}

void expectPackage(Walk& wire, const PackageInfo& info) {
  wire.expectAll(info.packageName, info.versionCode, info.versionName, info.long1, info.long2);
  expectApplication(wire.when(wire.marks(kMarks)), info.applicationInfo);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkRecord<ApplicationInfo>({data, size}, kMarks, expectApplication);
  checkRecord<PackageInfo>({data, size}, kMarks, expectPackage);
  return 0;
}

// The package manager: what is installed.
#include "device/ServiceNames.h"
#include "device/services/DefaultContent.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

// More than any package has.
constexpr std::int64_t kMostReceivers = 1000;
constexpr std::int64_t kMostActions = 1000;

class PackageService : public Service {
 public:
  using Service::Service;

  Json getPackages(const Call&) {
    Json names = Json::array();
    for (const auto& [name, ignored] : section().at("packages").items()) names.push_back(name);
    return names;
  }
};

Shape packageShape() {
  const Shape uid = Shape::number(0);
  const Shape time = Shape::number(0, std::numeric_limits<std::int64_t>::max());
  // The clock of a device is not set yet when its image is made.
  constexpr std::int64_t kImageMs = 1'230'768'000'000;
  return Shape::object({
      {"versionCode", Shape::number(), 1, "the version's number"},
      {"versionName", Shape::text(), "1.0", "the version's name"},
      {"uid", uid, 10'000, "the user id that it runs under"},
      {"metaData", Shape::map(Shape::textOrNumber()), Json::object(), "the application's meta-data"},
      {"receivers",
       Shape::list(Shape::object({
                       {"class", Shape::text(), "", "the receiver's class"},
                       {"actions", Shape::list(Shape::text(), kMostActions), Json::array(), "what it receives"},
                   }),
                   kMostReceivers),
       Json::array(), "the receivers of broadcasts"},
      {"launchActivity", Shape::text(), "", "the class that launches it; empty: none"},
      {"resources", Shape::map(Shape::text(), Shape::number()), Json::object(), "the raw resources, by their ids"},
      {"firstInstallMs", time, kImageMs, "when it was installed, in milliseconds since 1970"},
      {"lastUpdateMs", time, kImageMs, "when it was last updated"},
  });
}

}  // namespace

const ServiceType& packageService() {
  using Self = PackageService;
  static const ServiceType type = {
      "packages",
      kPackageManagerName,
      "com.quarlo.orveldelegate.packagemanager.IOrvelPackageManager",
      "what is installed",
      {
          {"packages", Shape::map(packageShape()), defaultPackages(), "the installed packages"},
      },
      {
          {2, "getPackages", {}, handledBy<&Self::getPackages>, writeTexts},
      },
      makeService<Self>,
  };
  return type;
}

}  // namespace orvel::sim

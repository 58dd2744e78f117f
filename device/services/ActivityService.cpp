// The activity manager: the processes of applications.
#include "device/Acts.h"
#include "device/ServiceNames.h"
#include "device/services/DefaultContent.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

constexpr std::int64_t kMostPackages = 1000;  // of one process

void writeProcess(vesk_payload* reply, const std::string& name, const Json& process) {
  vesk_write_i32(reply, 1);
  writeText(reply, name);
  writeInt32(reply, process.at("pid"));
  writeInt32(reply, process.at("uid"));
  writeTexts(reply, process.at("packages"));
  writeZeros(reply, 2);
  writeInt32(reply, process.at("importance"));
  writeZeros(reply, 3);
  const auto reason = process.find("reason");
  if (reason == process.end() || reason->at("package").get_ref<const std::string&>().empty()) {
    writeNullTexts(reply, 1);  // no class follows where there is no package
  } else {
    writeText(reply, reason->at("package"));
    writeText(reply, reason->at("class"));
  }
  writeZeros(reply, 2);
  writeFlag(reply, process.at("focused"));
  vesk_write_i64(reply, 0);
}

void writeProcesses(vesk_payload* reply, const Json& processes) {
  vesk_write_i32(reply, static_cast<std::int32_t>(processes.size()));
  for (const auto& [name, process] : processes.items()) writeProcess(reply, name, process);
}

Shape processShape() {
  return Shape::object({
      {"pid", Shape::number(0), 0, "the process id"},
      {"uid", Shape::number(0), 10'000, "the user id that it runs under"},
      {"importance", Shape::number(), kCached, "how the platform grades it; 100 is the foreground"},
      {"packages", Shape::list(Shape::text(), kMostPackages), Json::array(), "the packages that run in it"},
      {"focused", Shape::flag(), false, "whether the user's input goes to it"},
      {"reason",
       Shape::object({
           {"package", Shape::text(), "", "the component's package"},
           {"class", Shape::text(), "", "and its class"},
       }),
       std::nullopt, "the component for whose sake it is that important"},
  });
}

}  // namespace

const ServiceType& activityService() {
  static const ServiceType type = {
      "activity",
      kActivityManagerName,
      "com.quarlo.orveldelegate.activitymanager.IActivityManager",
      "running processes",
      {
          {"processes", Shape::map(processShape()), defaultProcesses(), "the running processes"},
      },
      {
          getter(2, "getRunningAppProcessesInfo", "processes", writeProcesses),
      },
      makeService<Service>,
  };
  return type;
}

}  // namespace orvel::sim

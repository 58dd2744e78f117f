// What the clients register for, in the words of the wire: services by the names under which they are found,
// registrations by action, setting or namespace.
#pragma once

#include <string>

namespace orvel::kills {

constexpr char kDelegate[] = "orvel_delegate";
constexpr char kConnectivity[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kCoordinator[] = "orvel-service-coordinator-public";
constexpr char kEvents[] = "com.quarlo.orvel.orvelsim.orvelsimeventclient";
constexpr char kPower[] = "com.quarlo.orvel.powermanager";
constexpr char kPackages[] = "com.quarlo.orvel.packagemanager";
constexpr char kActivity[] = "com.quarlo.orvel.activitymanager";
constexpr char kMetrics[] = "com.quarlo.client.metrics.tarsel";

constexpr char kName[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr char kAccountAdded[] = "com.quarlo.hux.sso.action.account.added";
constexpr char kAccountRemoved[] = "com.quarlo.hux.sso.action.account.removed";
constexpr char kAssistant[] = "com.quarlo.speech.CONNECTIVITY_ACTION";
constexpr char kScreenOn[] = "android.intent.action.SCREEN_ON";
constexpr char kScreenOff[] = "android.intent.action.SCREEN_OFF";
constexpr char kPackage[] = "android.intent.action.PACKAGE_ADDED";
constexpr char kTime[] = "com.quarlo.velmos.service.timeservice.clock.TIME_SYNC";
constexpr char kSettingPrefix[] = "setting:";
constexpr char kSetting[] = "setting:kill";
constexpr char kMoreSettings[] = "setting:kill.more.";  // and a number
constexpr char kNetwork[] = "network";
constexpr char kDirective[] = "directive:";  // and a namespace

constexpr int kNamespaces = 3;  // of each client
inline std::string namespaceOf(const std::string& client, int number) {
  return client + "-" + std::to_string(number);
}

}  // namespace orvel::kills

// A client and its device, for the suites of the test kit.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "orvel/OrvelDelegateClient.h"
#include "orvel/testing/TestDevice.h"

namespace orvel::testing {

using Texts = std::vector<std::string>;

constexpr char kRegisterForNames[] = "registerForBroadcastWithDataTypeOrScheme";

inline service_apis::OrvelDelegateClient& client() {
  return service_apis::OrvelDelegateClient::getClient();
}

// A device and its client, which hears of the device's names.
struct Session {
  explicit Session(const std::string& scenario = "{}") : device(scenario) { EXPECT_TRUE(client().initialize()); }

  bool hear_names() {
    return client().registerForDeviceNameChange([this](std::string name) { names.push_back(std::move(name)); });
  }
  // The subscription is there, once.
  void expect_name_heard() {
    device.set("name", "Hall");
    EXPECT_TRUE(device.settle());
    EXPECT_THAT(names, ::testing::ElementsAre("Hall"));
  }
  // Does something to a service, and waits for what comes of it.
  void settle_after(void (TestDevice::*act)(const std::string&), const char* service) {
    (device.*act)(service);
    EXPECT_TRUE(device.settle());
  }
  void kill(const char* service) { settle_after(&TestDevice::kill, service); }
  void restart(const char* service) { settle_after(&TestDevice::restart, service); }
  void repair(const char* service) { settle_after(&TestDevice::repair, service); }
  // What the client registered, one line each.
  Texts registered() const {
    Texts lines;
    for (const Registration& each : device.registrations()) lines.push_back(each.service + "." + each.method);
    return lines;
  }

  Texts names;
  TestDevice device;  // last: what ends with it may still hear of a name
};

}  // namespace orvel::testing

// What a device does to its clients: changes, faults, deaths, traffic.
#include <signal.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Device.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

class DeviceChanges : public Device {
 protected:
  // The process of a service.
  pid_t pidOf(const std::string& service) const {
    for (const json& entry : view({"services"})) {
      if (entry.at("service") == service) return entry.at("pid");
    }
    return 0;
  }

  // A client with a live connection to every service.
  std::unique_ptr<Process> connectedClient() const {
    auto client = start({"orvel-e2e-client"});
    client->waitForOutput("ready");
    client->write("name");
    EXPECT_EQ(client->waitForOutput("name "), "[Kitchen Display]");
    return client;
  }

  // The client's calls fail at once with empty values, until it has bound the service again.
  void expectDeadThenAlive(Process& client, const std::function<void()>& revive, const std::string& name) const {
    client.waitForError("on_binder_died:Service (orvel_delegate) has died, re-establishing binder connection");
    client.write("name");
    EXPECT_EQ(client.waitForOutput("name "), "[]");
    revive();
    client.waitForError("bind_to_service:Binding to service: orvel_delegate");
    client.waitForError("bind_to_orvel_service:Bound service orvel_delegate is now ready");
    client.waitForError("bind_to_service:Bound to service: orvel_delegate");
    client.waitForError("on_binder_died:Death callback completed");
    client.write("name");
    EXPECT_EQ(client.waitForOutput("name "), name);
  }
};

class IsolatedChanges : public DeviceChanges {};

TEST_P(DeviceChanges, AChangeIsSeenByTheVeryNextCall) {
  order({"set", "name", "Living room"});
  EXPECT_EQ(run({"orvelctl", "get", "name"}).output, "Living room\n");
  order({"set", "setting", "some_key", "-42"});
  EXPECT_EQ(run({"orvelctl", "setting", "some_key"}).output, "-42\n");
  order({"unset", "setting", "some_key"});
  EXPECT_EQ(run({"orvelctl", "setting", "some_key"}).output, "0\n");
  order({"screen", "off"});
  EXPECT_EQ(run({"orvelctl", "screen"}).output, "off\n");
  EXPECT_EQ(run({"orvelctl", "wake-lock", "full"}).status, 0);
  EXPECT_EQ(run({"orvelctl", "screen"}).output, "on\n") << "the device must have woken up";
  order({"exception", "power"});
  EXPECT_EQ(run({"orvelctl", "screen"}).status, 1);
  order({"exception", "power", "off"});
  EXPECT_EQ(run({"orvelctl", "screen"}).status, 0);
}

TEST_P(DeviceChanges, AHangingServiceHoldsUpNoOther) {
  shortenCallLimit();
  auto client = connectedClient();
  order({"hang", "delegate"});
  client->write("name");
  EXPECT_EQ(run({"orvelctl", "screen"}).output, "on\n");
  EXPECT_EQ(client->waitForOutput("name "), "[]");
  order({"hang", "delegate", "off"});
  order({"delay", "power", "isInteractive", "100"});
  client->write("screen");
  EXPECT_EQ(run({"orvelctl", "get", "name"}).output, "Kitchen Display\n");
  EXPECT_EQ(client->waitForOutput("screen "), "1") << "a late answer is still an answer";
}

TEST_P(DeviceChanges, TrafficShowsEachTransactionDecoded) {
  const auto live = start({"orvel-sim", "traffic", "--json"});
  const auto client = start({"orvelctl", "setting", "volume_alarm"});
  const json shown = json::parse("{" + live->waitForOutput("{"));
  EXPECT_EQ(client->wait(), 0);
  EXPECT_EQ(shown.at("service"), "delegate");
  EXPECT_EQ(shown.at("method"), "getSecureSetting");
  EXPECT_EQ(shown.at("code"), 15);
  EXPECT_EQ(shown.at("arguments"), json({{"key", "volume_alarm"}}));
  EXPECT_EQ(shown.at("reply"), "5");
  EXPECT_EQ(shown.at("pid"), client->pid());
  EXPECT_GE(shown.at("durationMs"), 0);

  order({"truncate", "power", "4"});
  order({"exception", "power", "getVersion", "--message", "boom"});
  run({"orvelctl", "screen"});
  run({"orvelctl", "wake-lock", "partial"});
  const std::string past = run({"orvel-sim", "traffic", "--past"}).output;
  const char* const expected[] = {"delegate.getSecureSetting(key: \"volume_alarm\") = \"5\"",
                                  "power.isInteractive() = true cut to 4 bytes",
                                  "power.getVersion() throws -5 \"boom\" cut to 4 bytes"};
  std::size_t at = 0;
  for (const char* line : expected) {
    at = past.find(line, at);
    EXPECT_NE(at, std::string::npos) << line << " is not next in:\n" << past;
  }
}

TEST_P(DeviceChanges, AWrongRequestIsAnsweredWithAnExceptionThatSaysSo) {
  const struct {
    const char* request;  // after the service: code, shape of the reply, words
    const char* reply;    // 0 for an answer, exception code, message, no stack trace
  } rows[] = {
      {"33 is 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService", "0 0 Kitchen Display"},
      {"99 isi 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService",
       "0 -7 transaction 99, header: com.quarlo.orveldelegate.IDelegateService has no such transaction 0"},
      {"33 isi 0 -1 1398362964 'com.quarlo.IOther",
       "0 -1 getDeviceName, header: the request is for the interface \"com.quarlo.IOther\", this is "
       "com.quarlo.orveldelegate.IDelegateService 0"},
      {"33 isi 0 -1 7 'com.quarlo.orveldelegate.IDelegateService",
       "0 -2 getDeviceName, header: the request header holds 7 where 1398362964 belongs 0"},
      {"15 isi 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService",
       "0 -2 getSecureSetting, key: the request ends early or holds something else here 0"},
      {"33 isi 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService 7",
       "0 -2 getDeviceName, end: 4 bytes follow the last argument 0"},
      {"15 isi 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService -1",
       "0 -3 getSecureSetting: the key is empty 0"},
      {"15 ii 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService 'unset", "0 0 -1"},
  };
  auto client = connectedClient();
  for (const auto& row : rows) {
    client->write(std::string("call orvel_delegate ") + row.request);
    EXPECT_EQ(client->waitForOutput("reply "), row.reply);
  }
}

TEST_P(DeviceChanges, AKilledServiceIsBoundAgainOnceItIsRestarted) {
  auto client = connectedClient();
  order({"kill", "delegate"});
  EXPECT_EQ(pidOf("delegate"), 0);
  EXPECT_EQ(run({"orvel-sim", "kill", "delegate"}).status, 1);
  order({"set", "name", "Hall"});
  expectDeadThenAlive(
      *client,
      [&] {
        order({"restart", "delegate"});
      },
      "[Hall]");
  order({"restart", "delegate"});
  client->waitForError("Service (orvel_delegate) has died");
}

TEST_P(DeviceChanges, ASecondDeviceInTheDirectoryIsRefusedAndTheFirstGoesOn) {
  for (const Words& words : {Words{"orvel-sim", "run"}, Words{"orvel-sim", "run", "--isolate"}}) {
    const Result second = run(words);
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.error, "orvel-sim: another device lives in " + directory().string() + "\n");
  }
  EXPECT_EQ(run({"orvelctl", "get", "name"}).status, 0);
  m_device->signal(SIGINT);
  EXPECT_EQ(m_device->wait(), 0);
  EXPECT_EQ(m_device->error(), "");
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_P(IsolatedChanges, AServiceWhoseProcessIsKilledComesBackWithItsState) {
  auto client = connectedClient();
  order({"set", "name", "Attic"});
  kill(pidOf("delegate"), SIGKILL);
  const auto restarted = [&] { m_device->waitForError("was killed by signal 9; starting it again"); };
  expectDeadThenAlive(*client, restarted, "[Attic]");
}

TEST_P(IsolatedChanges, ServicesEndWithTheDeviceHoweverThatEnds) {
  const pid_t services[] = {pidOf("delegate"), pidOf("power")};
  m_device->signal(SIGKILL);
  for (const pid_t service : services) test::waitForEndOf(service);
  EXPECT_EQ(run({"orvelctl", "get", "name"}).status, 3);
}

std::string nameOf(const ::testing::TestParamInfo<bool>& mode) {
  return mode.param ? "Isolated" : "InOneProcess";
}
INSTANTIATE_TEST_SUITE_P(, DeviceChanges, ::testing::Values(false, true), nameOf);
INSTANTIATE_TEST_SUITE_P(, IsolatedChanges, ::testing::Values(true), nameOf);

}  // namespace
}  // namespace orvel::e2e

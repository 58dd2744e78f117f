// Every way in which a service can fail, for every service: what a client sees, and that it is over when it ends.
#include <algorithm>
#include <ostream>
#include <tuple>

#include "Device.h"

namespace orvel::e2e {
namespace {

// A service, and what a client's call of it comes to: 'VALUE' and how the library says that it failed.
struct Expected {
  const char* service;
  std::string good;    // the call succeeds
  std::string failed;  // its value where it does not
  std::string cut;     // where the reply ends after the exception code
  std::string unbound;
};
void PrintTo(const Expected& row, std::ostream* stream) {
  *stream << row.service;
}

const Expected kExpected[] = {
    {"delegate", "'Kitchen Display' ", "'' ", "'' ", "'' "},
    {"power", "'on' ", "'off' ", "'off' ", "'off' "},
    {"connectivity", "'taken' ", "'taken' ", "'taken' ", "'refused' "},
    {"activity", "'3' ", "'' ", "'0' ", "'' "},
    {"packages", "'40' ", "'0' ", "'0' ", "'' "},
    {"events", "'taken' ", "'refused' ", "'refused' ", "'refused' "},
    {"metrics", "'' ", "'' ", "'' ", "'' "},
};

class Faults : public NoDevice, public ::testing::WithParamInterface<std::tuple<Expected, bool>> {
 protected:
  void SetUp() override {
    m_device = start(Words{"orvel-sim", "run"} + (std::get<1>(GetParam()) ? Words{"--isolate"} : Words{}));
    m_device->waitForOutput("serving in ");
    shortenCallLimit();
    m_client = start({"orvel-e2e-client"});
    m_client->waitForOutput("ready");
    restoreCallLimit();
  }

  std::string service() const { return expected().service; }
  const Expected& expected() const { return std::get<0>(GetParam()); }

  std::string order(const Words& words) const {
    const Result result = run(Words{"orvel-sim"} + words);
    EXPECT_EQ(result.status, 0) << result.error;
    return result.output;
  }

  std::string ask() {
    m_client->write("ask " + service());
    return m_client->waitForOutput("answer ");
  }

  void expectToRecover(const char* after) {
    m_client->waitForError("on_binder_died:Death callback completed");
    EXPECT_EQ(ask(), expected().good) << "again, after " << after;
  }

  std::unique_ptr<Process> m_device;
  std::unique_ptr<Process> m_client;
};

TEST_P(Faults, EachShowsAsItselfAndEndsWithoutATrace) {
  const Expected& row = expected();
  ASSERT_EQ(ask(), row.good);
  const struct {
    Words words;
    std::string answer;
  } lasting[] = {
      {{"delay", service(), "30"}, row.good},
      {{"exception", service()}, row.failed + "exception -5"},
      {{"exception", service(), "--code", "-1"}, row.failed + "exception -1"},
      {{"truncate", service(), "4"}, row.cut},
      {{"error", service(), "-74"}, row.failed + "vesk -74"},
  };
  for (const auto& fault : lasting) {
    order(fault.words);
    EXPECT_EQ(ask(), fault.answer) << fault.words.front();
    order({fault.words.front(), service(), "off"});
    EXPECT_EQ(ask(), row.good) << "again, after " << fault.words.front();
  }
  std::vector<double> durations;
  for (const auto& entry : parseLines(run({"orvel-sim", "traffic", "--past", "--json"}).output)) {
    if (entry.contains("method") && entry["service"] == service()) durations.push_back(entry["durationMs"]);
  }
  EXPECT_GE(*std::max_element(durations.begin(), durations.end()), 30) << "the delay";

  order({"hang", service()});
  EXPECT_EQ(ask(), row.failed + "vesk -110");
  order({"hang", service(), "off"});
  EXPECT_EQ(ask(), row.good) << "the connection goes on";
  EXPECT_EQ(m_client->error().find("has died"), std::string::npos) << m_client->error();

  order({"drop", service(), "1"});
  EXPECT_EQ(ask(), row.failed + "vesk -104") << "the connection is closed";
  EXPECT_EQ(order({"drop"}), "") << "that was the one";
  expectToRecover("drop");
  order({"drop", service()});
  EXPECT_EQ(ask(), row.failed + "vesk -104");
  EXPECT_EQ(order({"drop"}), service() + " * on\n");
  order({"drop", service(), "off"});
  expectToRecover("drop off");

  EXPECT_EQ(order({"get", service(), "faults"}), "{}\n");
}

TEST_P(Faults, ADeathIsOverWhenTheServiceIsBack) {
  const Expected& row = expected();
  order({"kill", service()});
  m_client->waitForError("has died, re-establishing");
  EXPECT_EQ(ask(), row.unbound);
  EXPECT_EQ(order({"get", service(), "alive"}), "false\n");
  order({"restart", service()});
  expectToRecover("kill");

  order({"restart", service()});
  expectToRecover("restart");

  order({"flap", service(), "100", "1"});
  expectToRecover("flap");
  EXPECT_EQ(order({"flap"}), "") << "it has died as often as it was to";
  order({"flap", service(), "60000"});
  order({"kill", service()});
  EXPECT_EQ(order({"flap"}), "") << "killed for good";
  order({"set", service(), "alive", "true"});
  expectToRecover("being set alive");
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<Expected, bool>>& row) {
  return std::get<0>(row.param).service + std::string(std::get<1>(row.param) ? "Isolated" : "");
}
INSTANTIATE_TEST_SUITE_P(, Faults, ::testing::Combine(::testing::ValuesIn(kExpected), ::testing::Bool()), nameOf);

class CoordinatorFaults : public Faults {};

// No client asks it anything; whoever does gets what the fault says in place of the refusal.
TEST_P(CoordinatorFaults, HoldForTheRequestsThatItRefuses) {
  const struct {
    Words fault;
    const char* reply;  // 0 for an answer, exception code
  } rows[] = {
      {{}, "0 -7"},
      {{"delay", "coordinator", "30"}, "0 -7"},
      {{"exception", "coordinator"}, "0 -7"},  // the refusal goes first
      {{"truncate", "coordinator", "0"}, "0 0"},
      {{"error", "coordinator", "-74"}, "-74 0"},
      {{"hang", "coordinator"}, "-110 0"},
      {{"drop", "coordinator"}, "-104 0"},
  };
  for (const auto& row : rows) {
    if (!row.fault.empty()) order(row.fault);
    m_client->write("call orvel-service-coordinator-public 1 i");
    EXPECT_EQ(m_client->waitForOutput("reply "), row.reply);
    if (!row.fault.empty()) order({row.fault.front(), "coordinator", "off"});
  }
  for (const Words& death : {Words{"kill", "coordinator"}, Words{"flap", "coordinator", "100", "1"}}) {
    order(death);
    m_client->waitForError("has died, re-establishing");
    if (death.front() == "kill") {
      EXPECT_EQ(run({"orvel-sim", "directive", "N", "x"}).status, 1);
      order({"restart", "coordinator"});
    }
    m_client->waitForError("on_binder_died:Death callback completed");
  }
}
INSTANTIATE_TEST_SUITE_P(, CoordinatorFaults,
                         ::testing::Combine(::testing::Values(Expected{"coordinator", "", "", "", ""}),
                                            ::testing::Bool()),
                         nameOf);

// Two clients: what one loses the other keeps.
TEST_F(NoDevice, ADroppedConnectionIsNobodyElsesDeath) {
  const auto device = start({"orvel-sim", "run"});
  device->waitForOutput("serving in ");
  const auto other = start({"orvel-e2e-client"});
  other->waitForOutput("ready");
  run({"orvel-sim", "drop", "delegate", "getDeviceName", "1"});
  // Not bound, when the word of the connection's end was faster than the call's.
  const int status = run({"orvelctl", "get", "name"}).status;
  EXPECT_TRUE(status == 1 || status == 5) << status;
  EXPECT_EQ(run({"orvelctl", "get", "name"}).output, "Kitchen Display\n");
  other->write("name");
  EXPECT_EQ(other->waitForOutput("name "), "[Kitchen Display]");
  EXPECT_EQ(other->error().find("has died"), std::string::npos) << other->error();
  const auto last = parseLines(run({"orvel-sim", "traffic", "--past", "--json"}).output).at(0);
  EXPECT_EQ(last.at("drops"), true);
}

}  // namespace
}  // namespace orvel::e2e

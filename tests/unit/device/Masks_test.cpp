#include <gtest/gtest.h>

#include <string>

#include "device/Recording.h"
#include "device/Scenario.h"

namespace orvel::sim {
namespace {

// Of a device whose owner has told nothing.
class Masking : public ::testing::Test {
 protected:
  std::string masked(const std::string& entry) {
    Json json = Json::parse(entry);
    m_redactions.apply(json);
    return json.dump();
  }
  // Of a request's reply, as JSON.
  std::string reply(const std::string& service, const std::string& method, const std::string& value) {
    const std::string entry = R"({"service":")" + service + R"(","method":")" + method + R"(","arguments":{},"reply":)";
    return Json::parse(masked(entry + value + "}")).at("reply").dump();
  }

  Redactions m_redactions{
      readScenario(R"({"delegate": {"name": "", "serialNumber": "", "customerId": "<unknown>"}})", "here")};
};

TEST_F(Masking, WhatTellsOfTheOwnerIsMaskedAndWhatClientsComputeWithIsNot) {
  const struct {
    const char* service;
    const char* method;
    const char* value;
    const char* masked;
  } rows[] = {
      {"delegate", "getDeviceName", R"("Anna")", R"("masked-1")"},
      {"delegate", "getDeviceName", R"("")", R"("")"},
      {"delegate", "getDeviceName", "null", "null"},
      {"delegate", "getDirectedId", R"("<unknown>")", R"("<unknown>")"},
      {"delegate", "getDirectedId", R"("account")", R"("masked-2")"},
      {"delegate", "getDeviceInfo", R"(["a", "b", "c", "kept", "d", null])",
       R"(["masked-3","masked-4","masked-5","kept","masked-6",null])"},
      {"delegate", "getSecureSetting", R"("128")", R"("128")"},
      {"delegate", "getSecureSetting", R"("-1")", R"("-1")"},
      {"delegate", "getSecureSetting", R"("-")", R"("masked-7")"},
      {"delegate", "getSecureSetting", R"("1.5")", R"("masked-8")"},
      {"delegate", "getCOR", R"("DE")", R"("DE")"},
      {"power", "getDeviceName", R"("Bert")", R"("Bert")"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(reply(row.service, row.method, row.value), row.masked) << row.method << " " << row.value;
  }
}

TEST_F(Masking, AnIdentityIsMaskedInsideOtherTextsFromFourCharactersOn) {
  reply("delegate", "getDeviceName", R"("long")");
  reply("delegate", "getDSNV2", R"("abc")");
  EXPECT_EQ(masked(R"({"service":"delegate","method":"queryBroadcastReceivers","arguments":{"action":"so long, abc"},)"
                   R"("exception":{"code":-3,"message":"longlong","trace":"at long"}})"),
            R"({"service":"delegate","method":"queryBroadcastReceivers","arguments":{"action":"so masked-1, abc"},)"
            R"("exception":{"code":-3,"message":"masked-1masked-1","trace":"at masked-1"}})");
  EXPECT_EQ(masked(R"({"service":"delegate","notification":"broadcast","arguments":{"action":"a","type":"long",)"
                   R"("extras":[{"key":"long","type":"long","value":7}]}})"),
            R"({"service":"delegate","notification":"broadcast","arguments":{"action":"a","type":"masked-1",)"
            R"("extras":[{"key":"masked-1","type":"long","value":7}]}})")
      << "the word for the type of an extra is no value";
}

TEST_F(Masking, DataKeepsItsSchemeAndThePackageThatItNames) {
  const std::pair<std::string, const char*> rows[] = {
      {"package:com.example.app", "package:com.example.app"},
      {"content:secret", "content:masked-1"},
      {"other:secret", "other:masked-1"},  // the same value has the same mask
      {"secret", "masked-1"},
      {"content:", "content:"},
  };
  for (const auto& [data, expected] : rows) {
    const std::string entry = masked(
        R"({"service":"delegate","notification":"broadcast","arguments":{"action":"a","data":")" + data + R"("}})");
    EXPECT_EQ(Json::parse(entry).at("arguments").at("data"), expected);
  }
}

TEST(MayStandFor, AMaskStandsForOneTextAndNoOtherMaskForThat) {
  MetTexts met;
  const struct {
    const char *recorded, *given;
    bool fits;
  } rows[] = {
      {R"("masked-1")", R"("Anna")", true},
      {R"("of masked-1!")", R"("of Anna!")", true},
      {R"("of masked-1!")", R"("of Anna")", false},
      {R"("of masked-9!")", R"("of !")", false},  // a mask stands for no empty text
      {R"("of masked-9!")", R"("o")", false},
      {R"("masked-1")", R"("Bert")", false},
      {R"("masked-2")", R"("Anna")", false},
      {R"("masked-2")", R"("Bert")", true},
      {R"("masked-")", R"("masked-")", true},
      {R"("masked-")", R"("x")", false},  // which is not a mask
      {R"({"a": ["masked-1", 1, null]})", R"({"a": ["Anna", 1, null]})", true},
      {R"({"a": ["masked-1", 1]})", R"({"a": ["Anna", 2]})", false},
      {R"({"a": "masked-1"})", R"({"b": "Anna"})", false},
      {R"(["masked-1"])", R"(["Anna", "Anna"])", false},
      {"7", R"("7")", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(mayStandFor(Json::parse(row.recorded), Json::parse(row.given), met), row.fits)
        << row.recorded << row.given;
  }
}

}  // namespace
}  // namespace orvel::sim

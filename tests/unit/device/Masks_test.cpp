#include <gtest/gtest.h>

#include <utility>

#include "device/Recording.h"
#include "device/Scenario.h"

namespace orvel::sim {
namespace {

// In their order: the same text always has the same mask.
TEST(Masks, WhatTellsOfTheOwnerIsMaskedAndWhatClientsComputeWithIsNot) {
  const struct {
    const char *service, *method;
    const char *reply, *masked;
  } replies[] = {
      {"delegate", "getDeviceName", R"("string")", R"("masked-1")"},
      {"delegate", "getDeviceName", R"("")", R"("")"},
      {"delegate", "getDeviceName", "null", "null"},
      {"delegate", "getDirectedId", R"("<unknown>")", R"("<unknown>")"},
      {"delegate", "getDirectedId", R"("abc")", R"("masked-2")"},
      {"delegate", "getDeviceInfo", R"(["a", "b", "c", "kept", "d", null])",
       R"(["masked-3","masked-4","masked-5","kept","masked-6",null])"},
      {"delegate", "getSecureSetting", R"("-1")", R"("-1")"},
      {"delegate", "getSecureSetting", R"("-")", R"("masked-7")"},
      {"delegate", "getSecureSetting", R"("1.5")", R"("masked-8")"},
      {"delegate", "getCOR", R"("DE")", R"("DE")"},
      {"power", "getDeviceName", R"("Bert")", R"("Bert")"},
      // An identity inside other texts, from four characters on.
      {"delegate", "getCOR", R"("so string, abc, stringstring")", R"("so masked-1, abc, masked-1masked-1")"},
  };
  Redactions redactions(
      readScenario(R"({"delegate": {"name": "", "serialNumber": "", "customerId": "<unknown>"}})", "here"));
  for (const auto& row : replies) {
    Json entry = {{"service", row.service}, {"method", row.method}, {"arguments", Json::object()}};
    entry["reply"] = Json::parse(row.reply);
    redactions.apply(entry);
    EXPECT_EQ(entry.at("reply").dump(), row.masked) << row.method << " " << row.reply;
  }
  // Data keep their scheme and the package that they name, and extras their type.
  const std::pair<const char*, const char*> broadcasts[] = {
      {R"({"action":"a","data":"package:a.b"})", R"({"action":"a","data":"package:a.b"})"},
      {R"({"action":"a","data":"content:secret"})", R"({"action":"a","data":"content:masked-9"})"},
      {R"({"action":"a","data":"secret"})", R"({"action":"a","data":"masked-9"})"},
      {R"({"action":"a","type":"string","extras":[{"key":"string","type":"string","value":"string"}]})",
       R"({"action":"a","type":"masked-1","extras":[{"key":"masked-1","type":"string","value":"masked-1"}]})"},
  };
  for (const auto& [arguments, masked] : broadcasts) {
    Json entry = {{"service", "delegate"}, {"notification", "broadcast"}, {"arguments", Json::parse(arguments)}};
    entry["exception"] = {{"message", "of string"}, {"trace", "string"}};
    redactions.apply(entry);
    EXPECT_EQ(entry.at("arguments").dump(), masked);
    EXPECT_EQ(entry.at("exception").dump(), R"({"message":"of masked-1","trace":"masked-1"})");
  }
}

}  // namespace
}  // namespace orvel::sim

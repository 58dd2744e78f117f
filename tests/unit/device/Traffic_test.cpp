#include "device/Traffic.h"

#include <gtest/gtest.h>

#include <string>

namespace orvel::sim {
namespace {

TEST(Traffic, EachOutcomeReadsAsALine) {
  const std::string kAsked = R"({"service": "power", "method": "isInteractive", "arguments": {}, )";
  const struct {
    std::string entry;  // but for the time
    const char* line;   // behind it
  } rows[] = {
      {R"({"service": "delegate", "method": "getSecureSetting", "arguments": {"key": "a\"b"}, "reply": "7",
           "durationMs": 0.25})",
       R"(delegate.getSecureSetting(key: "a\"b") = "7"  0.25 ms)"},
      {R"({"service": "delegate", "method": null, "code": 99, "arguments": {},
           "exception": {"code": -7, "message": "no such transaction"}})",
       R"(delegate.transaction 99() throws -7 "no such transaction")"},
      {kAsked + R"("error": -110})", R"(power.isInteractive() fails with -110 (Connection timed out))"},
      {kAsked + R"("reply": true, "truncatedTo": 4, "hangs": true})",
       R"(power.isInteractive() = true cut to 4 bytes hangs)"},
      {kAsked + R"("drops": true})", R"(power.isInteractive() drops the connection)"},
      {R"({"service": "delegate", "notification": "settingChanged", "arguments": {"key": "k", "value": null}})",
       R"(delegate -> settingChanged(key: "k", value: null))"},
      {R"json({"service": "events", "method": "sendEvent", "arguments": "{\"payload\":\"x... (9 bytes)"})json",
       R"line(events.sendEvent({"payload":"x... (9 bytes)))line"},
  };
  for (const auto& row : rows) {
    Json entry = Json::parse(row.entry);
    entry.update({{"timeMs", 1'250}, {"pid", 12}});
    const std::string line = describeEntry(entry);
    const std::size_t blank = line.find("  ");
    EXPECT_EQ(line.substr(blank), std::string("  ") + row.line + ", process 12");
    EXPECT_EQ(line.substr(blank - 7, 7), ":01.250") << line;
  }
}

TEST(Traffic, WhatIsLongIsCutOnceAndListed) {
  const std::string fits(16'384 - 2, 'x');  // with its quotes
  Json entry = {{"arguments", {{"text", fits}}}, {"reply", fits}, {"exception", {{"code", 1}, {"trace", fits + "x"}}}};
  shortenEntry(entry);
  EXPECT_EQ(entry.at("shortened"), Json({"arguments", "exception/trace"}));
  EXPECT_EQ(entry.at("reply"), fits);
  const auto& trace = entry.at("exception").at("trace").get_ref<const std::string&>();
  EXPECT_EQ(trace.substr(0, 3), "\"xx");
  EXPECT_EQ(trace.substr(16'384), "... (16385 bytes)");
  const Json before = entry;
  shortenEntry(entry);
  EXPECT_EQ(entry, before);
}

TEST(Traffic, PiecesEndBetweenCharactersAndMakeTheWholeText) {
  std::string text;
  while (text.size() < 2'000'000) text += "a\u00e9\u20ac\U0001F600";
  std::string whole;
  for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end) {
    end = pieceEnd(text, begin);
    ASSERT_GT(end, begin);
    ASSERT_LE(end - begin, 512U << 10);
    const std::string piece = text.substr(begin, end - begin);
    EXPECT_NO_THROW(Json(piece).dump()) << "a character was cut";
    whole += piece;
  }
  EXPECT_EQ(whole, text);
}

}  // namespace
}  // namespace orvel::sim

#include "device/Intent.h"

#include <gtest/gtest.h>

#include <string>

namespace orvel::sim {
namespace {

TEST(Intent, AFilterTakesWhatThePlatformsOwnWouldTake) {
  const struct {
    const char* what;
    const char* types;
    const char* schemes;
    const char* intent;  // but for its action
    bool matches;
  } rows[] = {
      {"neither data nor type", "[]", "null", R"({})", true},
      {"data that the filter does not name", "[]", "[]", R"({"data": "package:a"})", false},
      {"a type that the filter does not name", "[]", "[]", R"({"type": "text/plain"})", false},
      {"a scheme of the filter", "[]", R"(["http", "package"])", R"({"data": "package:a"})", true},
      {"another scheme", "[]", R"(["http"])", R"({"data": "package:a"})", false},
      {"a scheme that only begins alike", "[]", R"(["http"])", R"({"data": "https:a"})", false},
      {"no data for a scheme", "[]", R"(["package"])", R"({})", false},
      {"data without a scheme", "[]", R"(["package"])", R"({"data": "package"})", false},
      {"a type besides the scheme", "[]", R"(["package"])", R"({"data": "package:a", "type": "text/plain"})", false},
      {"a type of the filter", R"(["text/plain"])", "[]", R"({"type": "text/plain"})", true},
      {"one of several types", R"(["image/png", "text/plain"])", "[]", R"({"type": "text/plain"})", true},
      {"another type", R"(["text/html"])", "[]", R"({"type": "text/plain"})", false},
      {"no type", R"(["text/plain"])", "[]", R"({})", false},
      {"every type of a kind", R"(["text/*"])", "[]", R"({"type": "text/plain"})", true},
      {"every type of another kind", R"(["tex/*"])", "[]", R"({"type": "text/plain"})", false},
      {"an intent for every type of a kind", R"(["text/plain"])", "[]", R"({"type": "text/*"})", true},
      {"every type", R"(["*/*"])", "[]", R"({"type": "text/plain"})", true},
      {"a type without a kind", R"(["text"])", "[]", R"({"type": "text/plain"})", false},
      {"a type with data that a type alone implies", R"(["text/plain"])", "[]",
       R"({"data": "content:a", "type": "text/plain"})", true},
      {"a type with data that it does not imply", R"(["text/plain"])", "[]",
       R"({"data": "http:a", "type": "text/plain"})", false},
      {"type and scheme", R"(["text/plain"])", R"(["http"])", R"({"data": "http:a", "type": "text/plain"})", true},
      {"a type that is none", R"([null])", "[]", R"({"type": "text/plain"})", false},
  };
  for (const auto& row : rows) {
    Json intent = Json::parse(row.intent);
    intent["action"] = "a";
    EXPECT_EQ(matchesIntent("a", Json::parse(row.types), Json::parse(row.schemes), intent), row.matches) << row.what;
    EXPECT_FALSE(matchesIntent("b", Json::parse(row.types), Json::parse(row.schemes), intent)) << row.what;
  }
}

TEST(Intent, AnExtraIsReadFromAWordOrSaysWhatIsExpected) {
  const auto read = [](const char* type, const char* word) -> std::string {
    for (const ExtraType& each : extraTypes()) {
      if (each.name != type) continue;
      try {
        return readExtra(each, word).dump();
      } catch (const ScenarioError& error) {
        return error.what();
      }
    }
    return "no such type";
  };
  EXPECT_EQ(read("string", "k=a=b"), R"({"key":"k","type":"string","value":"a=b"})");
  EXPECT_EQ(read("string", "k="), R"({"key":"k","type":"string","value":""})");
  EXPECT_EQ(read("int", "k=-7"), R"({"key":"k","type":"int","value":-7})");
  EXPECT_EQ(read("long", "k=9223372036854775807"), R"({"key":"k","type":"long","value":9223372036854775807})");
  EXPECT_EQ(read("null", "k=v"), R"({"key":"k=v","type":"null","value":null})");
  EXPECT_EQ(read("string", "k"), "--string: expected KEY=TEXT, not 'k'");
  EXPECT_EQ(read("string", "=v"), "--string: expected KEY=TEXT, not '=v'");
  EXPECT_EQ(read("int", "k=2147483648"), "--int k: expected a whole number from -2147483648 to 2147483647");
  EXPECT_EQ(read("bool", "k=yes"), "--bool k: expected true or false");
}

TEST(Intent, ItsPackageIsThatOfItsComponentIfThatNamesOne) {
  const auto package = [](const char* intent) { return packageOf(Json::parse(intent)); };
  EXPECT_EQ(package(R"({"package": "p", "component": {"package": "c", "class": "C"}})"), "c");
  EXPECT_EQ(package(R"({"package": "p", "component": {"package": null, "class": "C"}})"), "p");
  EXPECT_EQ(package(R"({"package": "p"})"), "p");
  EXPECT_EQ(package(R"({"package": null})"), "");
}

}  // namespace
}  // namespace orvel::sim

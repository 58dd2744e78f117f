#include "device/Intent.h"

#include <gtest/gtest.h>

namespace orvel::sim {
namespace {

TEST(Intent, AFilterTakesWhatThePlatformsOwnWouldTake) {
  const struct {
    const char* what;
    const char* types;    // of the filter
    const char* schemes;  // of the filter
    const char* data;     // of the intent; "" for none
    const char* type;     // of the intent; "" for none
    bool matches;
  } rows[] = {
      {"neither data nor type", "[]", "null", "", "", true},
      {"data that the filter does not name", "[]", "[]", "package:a", "", false},
      {"a scheme of the filter", "[]", R"(["http", "package"])", "package:a", "", true},
      {"a scheme that only begins alike", "[]", R"(["http"])", "https:a", "", false},
      {"data without a scheme", "[]", R"(["package"])", "package", "", false},
      {"a type besides the scheme", "[]", R"(["package"])", "package:a", "text/plain", false},
      {"one of several types", R"(["image/png", "text/plain"])", "[]", "", "text/plain", true},
      {"no type", R"(["text/plain"])", "[]", "", "", false},
      {"every type of a kind", R"(["text/*"])", "[]", "", "text/plain", true},
      {"every type of another kind", R"(["tex/*"])", "[]", "", "text/plain", false},
      {"an intent for every type of a kind", R"(["text/plain"])", "[]", "", "text/*", true},
      {"a type without a kind", R"(["text"])", "[]", "", "text/plain", false},
      {"a type with data that a type alone implies", R"(["text/plain"])", "[]", "content:a", "text/plain", true},
      {"type and scheme", R"(["text/plain"])", R"(["http"])", "http:a", "text/plain", true},
  };
  for (const auto& row : rows) {
    Json intent = {{"action", "a"}};
    if (*row.data != '\0') intent["data"] = row.data;
    if (*row.type != '\0') intent["type"] = row.type;
    EXPECT_EQ(matchesIntent("a", Json::parse(row.types), Json::parse(row.schemes), intent), row.matches) << row.what;
    EXPECT_FALSE(matchesIntent("b", Json::parse(row.types), Json::parse(row.schemes), intent)) << row.what;
  }
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

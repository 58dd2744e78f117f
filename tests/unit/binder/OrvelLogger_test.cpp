// What reaches the Android log, and how.
#include "binder/OrvelLogger.h"

#include <stdexcept>

#include "support/ClientTest.h"

namespace orvel::service_apis {
namespace {

using ::testing::ElementsAre;

TEST(OrvelLogger, EachLevelHasItsPriorityAndTheTagBeginsWithTheLibrary) {
  test::LogRecorder log("Module");
  const OrvelLogger original("Module");
  const OrvelLogger logger(original);  // NOLINT(performance-unnecessary-copy-initialization)
  logger.v("%s:%d", "f", 1);
  logger.d("%s:%d", "f", 2);
  logger.i("%s:%d", "f", 3);
  logger.w("%s:%d", "f", 4);
  OrvelLogger("").e("%s:%d", "f", 5);
  EXPECT_THAT(log.take(), ElementsAre("V f:1", "D f:2", "I f:3", "W f:4", "E OrvelDelegateClient: f:5"));
  const std::runtime_error error("because");
  using Log = void (OrvelLogger::*)(const std::string&, const std::exception&) const;
  const Log levels[] = {&OrvelLogger::v, &OrvelLogger::d, &OrvelLogger::i, &OrvelLogger::w, &OrvelLogger::e};
  for (const Log level : levels) (logger.*level)("no%s", error);
  EXPECT_THAT(log.take(), ElementsAre("V no%s: because", "D no%s: because", "I no%s: because", "W no%s: because",
                                      "E no%s: because"));
}

}  // namespace
}  // namespace orvel::service_apis

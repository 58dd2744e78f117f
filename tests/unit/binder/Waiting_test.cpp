// The library's clock, in whose place the other tests link a virtual one.
#include "binder/Waiting.h"

#include <gtest/gtest.h>

#include <thread>

namespace orvel::service_apis::waiting {
namespace {

TEST(Waiting, TheClockRunsAndSleepsEndAsLongAsOneInterruptExists) {
  const TimePoint before = now();
  EXPECT_GT(before, TimePoint());
  EXPECT_TRUE(sleep_for(std::chrono::nanoseconds(1)));
  EXPECT_GT(now(), before);
  std::thread sleeper([] { EXPECT_FALSE(sleep_for(std::chrono::hours(1))); });
  {
    const Interrupt first;
    { const Interrupt second; }
    EXPECT_TRUE(interrupted()) << "one is left";
    sleeper.join();
    EXPECT_FALSE(sleep_for(std::chrono::hours(1)));
  }
  EXPECT_FALSE(interrupted());
  EXPECT_TRUE(sleep_for(std::chrono::nanoseconds(1)));
}

}  // namespace
}  // namespace orvel::service_apis::waiting

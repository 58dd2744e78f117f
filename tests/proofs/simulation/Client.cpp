// The whole client as a sequence of public calls against replies, deaths, notifications and time that the input decides.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Run.h"

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orvel::fuzz::ByteChoices choices(data, size);
  orvel::fuzz::Trace trace;
  const std::string failure = orvel::fuzz::run(choices, trace, /*lines=*/false);
  if (failure.empty()) return 0;
  std::fputs(failure.c_str(), stderr);
  std::abort();
}

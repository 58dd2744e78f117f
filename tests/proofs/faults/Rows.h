// Every public method, with what it gives and what it gives on failure.
#pragma once

#include <string>
#include <vector>

#include "orvel/OrvelDelegateClient.h"

namespace orvel::fuzz {

struct Row {
  const char* name;
  std::string (*call)(service_apis::OrvelDelegateClient& client);  // the result as text
  std::string success;                                             // with the device of serve()
  std::string failure;
  std::vector<std::string> cut;  // what it makes of replies that end early
};

extern const std::vector<Row> kRows;

}  // namespace orvel::fuzz

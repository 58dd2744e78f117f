// The libvesk inside the process and the bytes of messages, by the short names that tests use.
#pragma once

#include "vesk/inprocess/Bytes.h"
#include "vesk/inprocess/InprocessVesk.h"

namespace orvel::test {

using namespace vesk::inprocess;  // NOLINT(google-build-using-namespace)

}  // namespace orvel::test

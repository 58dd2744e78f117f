// What the records that the voice assistant sends have to be.
#pragma once

#include "Walk.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventResult.h"

namespace orvel::fuzz {

// The fourth text comes before the third.
inline void expectDirective(Walk& wire, const service_apis::OrvelSimDirective& directive) {
  wire.expectAll(directive.directive1, directive.directive2, directive.directive4, directive.directive3,
                 directive.directive5, directive.directive6, directive.directive7);
}

// No code is read behind a mark of 0, and none that is cut off is a success.
inline void expectResult(Walk& wire, service_apis::OrvelSimEventResult_t result) {
  constexpr int kUnknown = 6;
  const int code = wire.i32() == 0 ? kUnknown : wire.i32();
  const bool known = !wire.failed() && code >= 0 && code < kUnknown;
  require(static_cast<int>(result) == (known ? code : kUnknown), "a result is one of seven");
}

}  // namespace orvel::fuzz

// What a device has on it that was told nothing else, where that is much: a smart display with a voice assistant. In
// the form of scenario files, without what has its default there.
#pragma once

#include "device/Wire.h"

namespace orvel::sim {

Json defaultFeatures();
Json defaultPackages();
Json defaultProcesses();

}  // namespace orvel::sim

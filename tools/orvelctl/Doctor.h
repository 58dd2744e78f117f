// orvelctl doctor: what is wrong with a set-up, and what to do about it.
#pragma once

#include "Session.h"

namespace orvelctl {

// How long it takes at most, where nothing else is said; in seconds.
constexpr double kDoctorLimit = 30;

// Looks at all of it and prints what it finds. The session must not be open yet.
void diagnose(Session& session);

// "What it looks at": the end of its help.
extern const char kDoctorFooter[];

}  // namespace orvelctl

// What the public headers share.
#pragma once

// Marks what the shared library exports.
#define ORVEL_API __attribute__((visibility("default")))

/// @file
/// What the public headers share.
#pragma once

/// Marks what the shared library exports.
#define ORVEL_API __attribute__((visibility("default")))

/// Marks what it keeps to itself of a class that it exports.
#define ORVEL_LOCAL __attribute__((visibility("hidden")))

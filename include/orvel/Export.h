/// @file
/// What the public headers share.
#pragma once

/// Marks what the shared library exports.
#define ORVEL_API [[gnu::visibility("default")]]

/// Marks the private parts of an exported class, which the library does not export.
#define ORVEL_LOCAL [[gnu::visibility("hidden")]]

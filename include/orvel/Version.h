/// @file
/// The version of these headers.
#pragma once

/// Grows when something that programs were built on changes; the soname carries it.
#define ORVEL_VERSION_MAJOR 1
/// Grows with every addition: 1 brought CallStatus.h, Links.h, Subscription.h, CallbackQueue.h, StartOptions.h,
/// AssistantEvent.h and Session.h.
#define ORVEL_VERSION_MINOR 1
/// Grows with every correction.
#define ORVEL_VERSION_PATCH 0

/// One number to compare with: `#if ORVEL_VERSION >= 10100`.
#define ORVEL_VERSION (ORVEL_VERSION_MAJOR * 10000 + ORVEL_VERSION_MINOR * 100 + ORVEL_VERSION_PATCH)

// The locks, described for Clang's thread-safety analysis. The analysis knows std::mutex only in libc++, whose switch
// turns these macros on; everywhere else they expand to nothing.
#pragma once

#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define ORVEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ORVEL_THREAD_ATTRIBUTE(x)
#endif

#define ORVEL_CAPABILITY(name) ORVEL_THREAD_ATTRIBUTE(capability(name))
#define ORVEL_GUARDED_BY(mutex) ORVEL_THREAD_ATTRIBUTE(guarded_by(mutex))
#define ORVEL_REQUIRES(...) ORVEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ORVEL_EXCLUDES(...) ORVEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ORVEL_ACQUIRE(...) ORVEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ORVEL_RELEASE(...) ORVEL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

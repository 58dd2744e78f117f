// Lets clang check which mutex guards what (-Wthread-safety); nothing to other compilers.
#pragma once

#if defined(__clang__)
#define VESK_ANNOTATION(x) __attribute__((x))
#else
#define VESK_ANNOTATION(x)
#endif

#define VESK_GUARDED_BY(mutex) VESK_ANNOTATION(guarded_by(mutex))
#define VESK_REQUIRES(mutex) VESK_ANNOTATION(requires_capability(mutex))

// For a function that holds the lock by a way that the compiler cannot see; a comment says which.
#define VESK_NO_ANALYSIS VESK_ANNOTATION(no_thread_safety_analysis)

// Clang thread-safety attributes. They compile to nothing under other compilers; a Clang build with
// -Wthread-safety checks that every guarded field is touched only with its lock held.
#pragma once

#if defined(__clang__)
#define OSB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define OSB_THREAD_ANNOTATION(x)
#endif

#define OSB_CAPABILITY(x) OSB_THREAD_ANNOTATION(capability(x))
#define OSB_SCOPED_CAPABILITY OSB_THREAD_ANNOTATION(scoped_lockable)
#define OSB_GUARDED_BY(x) OSB_THREAD_ANNOTATION(guarded_by(x))
#define OSB_PT_GUARDED_BY(x) OSB_THREAD_ANNOTATION(pt_guarded_by(x))
#define OSB_ACQUIRED_AFTER(...) OSB_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define OSB_ACQUIRED_BEFORE(...) OSB_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define OSB_REQUIRES(...) OSB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define OSB_EXCLUDES(...) OSB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define OSB_ACQUIRE(...) OSB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define OSB_RELEASE(...) OSB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define OSB_ACQUIRE_SHARED(...) OSB_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define OSB_RELEASE_SHARED(...) OSB_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define OSB_RELEASE_GENERIC(...) OSB_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define OSB_NO_THREAD_SAFETY_ANALYSIS OSB_THREAD_ANNOTATION(no_thread_safety_analysis)

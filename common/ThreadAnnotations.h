// Clang's thread-safety attributes, spelled as macros so that other
// compilers see nothing. A clang build with -Wthread-safety checks that
// every member marked ZEM_GUARDED_BY is touched only with its mutex held and
// that functions marked ZEM_REQUIRES are called with it.
#pragma once

#if defined(__clang__)
#define ZEM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZEM_THREAD_ANNOTATION(x)
#endif

#define ZEM_CAPABILITY(x) ZEM_THREAD_ANNOTATION(capability(x))
#define ZEM_SCOPED_CAPABILITY ZEM_THREAD_ANNOTATION(scoped_lockable)
#define ZEM_GUARDED_BY(x) ZEM_THREAD_ANNOTATION(guarded_by(x))
#define ZEM_PT_GUARDED_BY(x) ZEM_THREAD_ANNOTATION(pt_guarded_by(x))
#define ZEM_ACQUIRED_AFTER(...) ZEM_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ZEM_REQUIRES(...) ZEM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZEM_EXCLUDES(...) ZEM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZEM_ACQUIRE(...) ZEM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZEM_RELEASE(...) ZEM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZEM_TRY_ACQUIRE(...) ZEM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZEM_ASSERT_CAPABILITY(x) ZEM_THREAD_ANNOTATION(assert_capability(x))
#define ZEM_RETURN_CAPABILITY(x) ZEM_THREAD_ANNOTATION(lock_returned(x))
#define ZEM_NO_THREAD_SAFETY_ANALYSIS ZEM_THREAD_ANNOTATION(no_thread_safety_analysis)

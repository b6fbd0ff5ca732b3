// Clang's thread-safety attributes. Under g++ they expand to nothing; the test
// command compiles the daemon once with clang++ -Wthread-safety -Werror, which
// turns a guarded member touched without its lock into a build error.
#pragma once

#if defined(__clang__)
#define ZIBD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZIBD_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ZIBD_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ZIBD_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ZIBD_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) ZIBD_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) ZIBD_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ZIBD_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) ZIBD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZIBD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZIBD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZIBD_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) ZIBD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) ZIBD_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) ZIBD_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS ZIBD_THREAD_ANNOTATION(no_thread_safety_analysis)

/*
 * Names for Clang's thread-safety attributes; empty for every other compiler and for C.
 *
 * TARVO_CAPABILITY        on a type: an object of it is a lock
 * TARVO_GUARDED_BY        on data: read and written only with that lock held
 * TARVO_REQUIRES          on a function: the caller holds the lock
 * TARVO_EXCLUDES          on a function: the caller does not hold it, since the function takes it
 * TARVO_ASSERTS           on a function: states that the lock is held where it is called
 * TARVO_ACQUIRED_AFTER    on a lock: the order in which two locks nest
 */
#ifndef TARVO_PLATFORM_THREAD_ANNOTATIONS_H
#define TARVO_PLATFORM_THREAD_ANNOTATIONS_H

#if defined(__clang__) && defined(__cplusplus)
#define TARVO_TSA(x) __attribute__((x))
#else
#define TARVO_TSA(x)
#endif

#define TARVO_CAPABILITY(name) TARVO_TSA(capability(name))
#define TARVO_SCOPED_CAPABILITY TARVO_TSA(scoped_lockable)
#define TARVO_GUARDED_BY(lock) TARVO_TSA(guarded_by(lock))
#define TARVO_ACQUIRE(...) TARVO_TSA(acquire_capability(__VA_ARGS__))
#define TARVO_RELEASE(...) TARVO_TSA(release_capability(__VA_ARGS__))
#define TARVO_REQUIRES(...) TARVO_TSA(requires_capability(__VA_ARGS__))
#define TARVO_EXCLUDES(...) TARVO_TSA(locks_excluded(__VA_ARGS__))
#define TARVO_ASSERTS(lock) TARVO_TSA(assert_capability(lock))
#define TARVO_ACQUIRED_AFTER(...) TARVO_TSA(acquired_after(__VA_ARGS__))
#define TARVO_NO_THREAD_SAFETY_ANALYSIS TARVO_TSA(no_thread_safety_analysis)

#endif

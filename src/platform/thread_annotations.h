// What a lock guards and what a function asks of locks, in words that clang checks (-Wthread-safety). For any
// other compiler they say nothing.
#pragma once

#ifdef __clang__
#define VELARTO_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define VELARTO_THREAD_ATTRIBUTE(attribute)
#endif

// ---- of classes: a lock, called that in messages / the holder of one for a scope ----
#define VELARTO_CAPABILITY(name) VELARTO_THREAD_ATTRIBUTE(capability(name))
#define VELARTO_SCOPED_CAPABILITY VELARTO_THREAD_ATTRIBUTE(scoped_lockable)

// ---- of data: read and written under that lock only / what it points to is ----
#define VELARTO_GUARDED_BY(lock) VELARTO_THREAD_ATTRIBUTE(guarded_by(lock))
#define VELARTO_PT_GUARDED_BY(lock) VELARTO_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// ---- of functions: the locks that the caller holds / does not hold, because the function takes them ----
#define VELARTO_REQUIRES(...) VELARTO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VELARTO_EXCLUDES(...) VELARTO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// ---- of functions: the lock that they take or give back (without an argument: the object itself) ----
// The first argument of a TRY form is the result that means success.
#define VELARTO_ACQUIRE(...) VELARTO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VELARTO_ACQUIRE_SHARED(...) VELARTO_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define VELARTO_TRY_ACQUIRE(...) VELARTO_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define VELARTO_TRY_ACQUIRE_SHARED(...) VELARTO_THREAD_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
#define VELARTO_RELEASE(...) VELARTO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VELARTO_RELEASE_SHARED(...) VELARTO_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))

// ---- of functions: not checked inside; each use says why ----
#define VELARTO_NO_THREAD_SAFETY_ANALYSIS VELARTO_THREAD_ATTRIBUTE(no_thread_safety_analysis)

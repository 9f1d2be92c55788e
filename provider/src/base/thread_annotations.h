// What clang's thread-safety analysis (-Wthread-safety) reads: which lock guards a member, and which
// lock a function takes or needs. GCC has no such analysis; for it the macros are empty.

#pragma once

#ifdef __clang__
#define NV_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define NV_THREAD_ANNOTATION(attribute)
#endif

// Of a class: it is a lock, or it holds one for as long as it lives.
#define NV_CAPABILITY(name) NV_THREAD_ANNOTATION(capability(name))
#define NV_SCOPED_CAPABILITY NV_THREAD_ANNOTATION(scoped_lockable)

// Of a member: it is read and written only under the lock.
#define NV_GUARDED_BY(lock) NV_THREAD_ANNOTATION(guarded_by(lock))

// Of a function: the caller has the lock; the function takes it, tries to take it, or releases it.
#define NV_REQUIRES(...) NV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define NV_ACQUIRE(...) NV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define NV_TRY_ACQUIRE(...) NV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define NV_RELEASE(...) NV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

// Of a function that the analysis cannot follow. Say why beside it.
#define NV_NO_THREAD_SAFETY_ANALYSIS NV_THREAD_ANNOTATION(no_thread_safety_analysis)

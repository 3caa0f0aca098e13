// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Locking contracts that a compiler checks: clang's thread-safety analysis, nothing elsewhere.
#pragma once

#if defined(__clang__)
#define TA_ATTRIBUTE(x) __attribute__((x))
#else
#define TA_ATTRIBUTE(x)
#endif

/* On a type: it is a lock (of the named kind), or a guard that holds one for its scope. */
#define TA_CAPABILITY(kind) TA_ATTRIBUTE(capability(kind))
#define TA_SCOPED TA_ATTRIBUTE(scoped_lockable)

/* On data: read and written only with that lock held. */
#define TA_GUARDED(lock) TA_ATTRIBUTE(guarded_by(lock))

/* On a function: its caller holds the lock, holds it at least for reading, must not hold it. */
#define TA_REQ(...) TA_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TA_REQ_SHARED(...) TA_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define TA_EXCL(...) TA_ATTRIBUTE(locks_excluded(__VA_ARGS__))

/* On a function that takes or gives back the lock. */
#define TA_ACQ(...) TA_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TA_ACQ_SHARED(...) TA_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TA_REL(...) TA_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TA_REL_SHARED(...) TA_ATTRIBUTE(release_shared_capability(__VA_ARGS__))

/* On a function whose unlocked access is deliberate; say why beside it. */
#define TA_NO_ANALYSIS TA_ATTRIBUTE(no_thread_safety_analysis)

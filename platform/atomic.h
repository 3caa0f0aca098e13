// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Atomic integers, and plain variables that several CPUs touch without a lock.
#pragma once

#include "platform/types.h"

/* An int that is changed only whole. All operations are sequentially consistent. Context: any. */
struct atomic_t {
    int counter;
};

inline int atomic_read(const atomic_t* v) {
    return __atomic_load_n(&v->counter, __ATOMIC_SEQ_CST);
}
inline void atomic_set(atomic_t* v, int value) {
    __atomic_store_n(&v->counter, value, __ATOMIC_SEQ_CST);
}
inline void atomic_inc(atomic_t* v) {
    __atomic_add_fetch(&v->counter, 1, __ATOMIC_SEQ_CST);
}
/* Returns what is left. */
inline int atomic_dec(atomic_t* v) {
    return __atomic_sub_fetch(&v->counter, 1, __ATOMIC_SEQ_CST);
}

/* Reads or writes a word-sized variable that another CPU may be writing or reading: exactly one
 * access, never torn, in no order with other variables. Context: any. */
template <class T>
inline T read_once(const T& variable) {
    static_assert(sizeof(T) <= sizeof(void*));
    return __atomic_load_n(&variable, __ATOMIC_RELAXED);
}
template <class T, class U>
inline void write_once(T& variable, U value) {
    static_assert(sizeof(T) <= sizeof(void*));
    __atomic_store_n(&variable, static_cast<T>(value), __ATOMIC_RELAXED);
}

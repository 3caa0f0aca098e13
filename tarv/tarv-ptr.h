// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Kernel memory with an owner: freed at the end of the scope unless it was handed over.
#pragma once

#include "platform/memory.h"

/* Owns one zero-filled T, or nothing when there was no memory: test it on the next line. T is plain
 * data. */
template <class T>
class kptr {
    static_assert(__is_trivially_copyable(T));

  public:
    /* Allocates. Context: as `flags` says. */
    explicit kptr(gfp_t flags) : object_(static_cast<T*>(kmalloc(sizeof(T), flags))) {
        if (object_)
            __builtin_memset(object_, 0, sizeof(T));
    }
    /* Takes over what the caller owned. */
    explicit kptr(T* object) : object_(object) {}
    ~kptr() { kfree(object_); }
    kptr(const kptr&) = delete;
    kptr& operator=(const kptr&) = delete;

    explicit operator bool() const { return object_ != nullptr; }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }

    /* Hands the object over: it is the caller's now. */
    T* release() {
        T* object = object_;
        object_ = nullptr;
        return object;
    }

  private:
    T* object_;
};

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The host's configuration repository: keys that hold named values, as a path names them.
#pragma once

#include "platform/types.h"

struct rep_key;
using rep_key_t = rep_key*;  // an open key
struct rep_notification;
using rep_notify_t = rep_notification*;  // a registration for changes of a key

/* Called with an open key, the value that changed and the context of the registration. Process
 * context. */
using rep_change_cb_t = void(rep_key_t key, u64 value, void* context);

/* The root, below which all paths begin. It is not closed. Context: process, as for all calls here.
 */
rep_key_t rep_get_root() PLATFORM_LINK(rep_get_root);

/* Opens the key at `path` (parts ended by '/') below `root`; `flags` is 0. 0 on success. */
int rep_open_key(rep_key_t root, const char* path, u32 flags, rep_key_t* key)
    PLATFORM_LINK(rep_open_key);

/* Reads the value `name` of a key into `*value`; `*size` comes in as the room and goes out as the
 * size, both in bytes; `flags` is 0. 0 on success; a value of another size is a failure. */
int rep_get_value(rep_key_t key, const char* name, u32 flags, void* value, u32* size)
    PLATFORM_LINK(rep_get_value);

/* Has `callback` called after every change of a value of the key, until rep_notify_del. `flags` is
 * 0, `events` 2 (a value was set). The key may be closed meanwhile. 0 on success. */
int rep_notify_key_change(rep_key_t key, u32 flags, u32 events, rep_change_cb_t* callback,
                          void* context, rep_notify_t* handle) PLATFORM_LINK(rep_notify_key_change);

/* Closes an open key. */
void rep_close_key(rep_key_t key) PLATFORM_LINK(rep_close_key);

/* Ends a registration and waits until its callback has returned; a null handle does nothing. */
void rep_notify_del(rep_notify_t handle) PLATFORM_LINK(rep_notify_del);

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The kernel's doubly linked circular list links. A head and an entry have the same form; an empty
// list's head points at itself. No call here locks or allocates.
#pragma once

#include "platform/types.h"

struct list_head {
    list_head* next;
    list_head* prev;
};

/* Makes `list` an empty list, or an entry on none. */
inline void INIT_LIST_HEAD(list_head* list) {
    list->next = list;
    list->prev = list;
}

/* Links `entry` directly behind `head`: first in the list. */
inline void list_add(list_head* entry, list_head* head) {
    entry->next = head->next;
    entry->prev = head;
    head->next->prev = entry;
    head->next = entry;
}

/* Links `entry` directly before `head`: last in the list. */
inline void list_add_tail(list_head* entry, list_head* head) {
    list_add(entry, head->prev);
}

/* Unlinks `entry`, which is left on no list. */
inline void list_del_init(list_head* entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    INIT_LIST_HEAD(entry);
}

inline bool list_empty(const list_head* head) {
    return head->next == head;
}

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Semaphores, and giving up the processor.
#include "platform/semaphore.h"

#include <semaphore.h>

#include <new>

#include "host/executor.h"
#include "host/internal.h"

namespace {

struct Semaphore {
    std::uint64_t stamp;
    const char* name;
    int places;  // free at the start; 0: it only signals, so any number may be given
    sem_t free;
};
static_assert(sizeof(Semaphore) <= sizeof(semaphore::room));

constexpr std::uint64_t semaphore_kind = 0x73656D6170686F72ull;

Semaphore* object_in(semaphore* sem) {
    return std::launder(reinterpret_cast<Semaphore*>(sem->room));
}

Semaphore* usable(semaphore* sem, const char* call) {
    host::enter(call);
    Semaphore* own = object_in(sem);
    if (own->stamp != host::stamp_of(semaphore_kind))
        host::die("%s: the semaphore at %p was never initialised", call,
                  static_cast<const void*>(sem));
    return own;
}

int free_places(Semaphore* own) {
    int value = 0;
    sem_getvalue(&own->free, &value);
    return value;
}

}  // namespace

void sema_init(semaphore* sem, int count, const char* name) {
    host::enter("sema_init");
    Semaphore* own = object_in(sem);
    if (own->stamp == host::stamp_of(semaphore_kind) && free_places(own) < own->places)
        host::die("sema_init: the semaphore %s is made ready while it is held", own->name);
    own = new (sem->room) Semaphore{host::stamp_of(semaphore_kind), name, count, {}};
    sem_init(&own->free, 0, static_cast<unsigned>(count));
}

void down(semaphore* sem) {
    Semaphore* own = usable(sem, "down");
    host::must_sleep("down");
    const unsigned long since = host::executor().now();
    while (sem_trywait(&own->free) != 0) {
        if (host::executor().run_others("down", own->name, since))
            continue;
        while (sem_wait(&own->free) != 0) {
        }
        return;
    }
}

void up(semaphore* sem) {
    Semaphore* own = usable(sem, "up");
    if (host::is_atomic(host::current_context()))
        host::die("up: the semaphore %s is given back in %s context", own->name,
                  host::name_of(host::current_context()));
    if (own->places > 0 && free_places(own) >= own->places)
        host::die("up: the semaphore %s is given back more often than taken", own->name);
    sem_post(&own->free);
}

void schedule() {
    host::enter("schedule");
    host::must_sleep("schedule");
    host::executor().yield();
}

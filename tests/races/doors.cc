// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What stands here orders threads by nothing but the visitors' own doing: an order that came from
// looking at a door would hide a race from the thread sanitizer.
#include "tests/races/doors.h"

#include <array>
#include <atomic>
#include <random>
#include <thread>

#include "host/check.h"
#include "platform/gsi.h"
#include "platform/jiffies.h"
#include "platform/proc.h"
#include "platform/semaphore.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

namespace stress {
namespace {

std::array<std::atomic<const Visitor*>, door_count> everybodys;
thread_local std::array<const Visitor*, door_count> mine;

std::atomic<unsigned long> clock_speed = 1;
std::atomic<unsigned long> skipped = 0;
std::array<std::atomic<const timer_list*>, 2> by_hand;
std::atomic<unsigned> unrest = 0;

std::size_t index_of(Door door) {
    return static_cast<std::size_t>(door);
}

void visit(Door door, const void* object) {
    const Visitor* visitor = mine[index_of(door)];
    if (!visitor)
        visitor = everybodys[index_of(door)].load(std::memory_order_acquire);
    if (visitor)
        (*visitor)(object);
}

void come_to_lock(const void* lock) {
    visit(Door::lock, lock);
    const unsigned one_in = unrest.load(std::memory_order_relaxed);
    if (one_in == 0)
        return;
    thread_local std::minstd_rand random(std::random_device{}());
    if (random() % one_in == 0)
        std::this_thread::yield();
}

bool is_by_hand(const timer_list* timer) {
    for (const auto& one : by_hand)
        if (one.load(std::memory_order_relaxed) == timer)
            return true;
    return false;
}

}  // namespace

AtDoor::AtDoor(Door door, Visitor visitor) : door_(door), visitor_(std::move(visitor)) {
    if (everybodys[index_of(door)].exchange(&visitor_))
        host::die("two visitors at one door");
}

AtDoor::~AtDoor() {
    everybodys[index_of(door_)] = nullptr;
}

AtMyDoor::AtMyDoor(Door door, Visitor visitor)
    : door_(door), visitor_(std::move(visitor)), outer_(mine[index_of(door)]) {
    mine[index_of(door)] = &visitor_;
}

AtMyDoor::~AtMyDoor() {
    mine[index_of(door_)] = outer_;
}

void set_clock_speed(unsigned long speed) {
    clock_speed = speed;
}

void skip_ticks(unsigned long ticks) {
    skipped.fetch_add(ticks, std::memory_order_relaxed);
}

TimerByHand::TimerByHand(timer_list& timer) : timer_(timer) {
    for (auto& one : by_hand) {
        const timer_list* none = nullptr;
        if (one.compare_exchange_strong(none, &timer)) {
            del_timing_sync(&timer);
            return;
        }
    }
    host::die("more timers by hand than there is room for");
}

TimerByHand::~TimerByHand() {
    for (auto& one : by_hand) {
        const timer_list* timer = &timer_;
        one.compare_exchange_strong(timer, nullptr);
    }
    timer_.expires = jiffies();
    add_timing(&timer_);
}

void set_unrest(unsigned one_in) {
    unrest = one_in;
}

}  // namespace stress

// The doors. The linker gives the functions of the host the names that begin with __real_, and
// leads whoever calls them under their own names to those that begin with __wrap_.

#define BEHIND_DOOR(name) __asm__("__real_plat_" #name)
#define DOOR(name) __asm__("__wrap_plat_" #name)

using stress::Door;
using stress::visit;

unsigned long real_jiffies() BEHIND_DOOR(jiffies);
unsigned long door_jiffies() DOOR(jiffies);
void real_add_timing(timer_list* timer) BEHIND_DOOR(add_timing);
void door_add_timing(timer_list* timer) DOOR(add_timing);
int real_del_timing_sync(timer_list* timer) BEHIND_DOOR(del_timing_sync);
int door_del_timing_sync(timer_list* timer) DOOR(del_timing_sync);
unsigned long real_spin_lock(spinlock_t* lock) BEHIND_DOOR(spin_lock_irqsave);
unsigned long door_spin_lock(spinlock_t* lock) DOOR(spin_lock_irqsave);
void real_spin_unlock(spinlock_t* lock, unsigned long flags) BEHIND_DOOR(spin_unlock_irqrestore);
void door_spin_unlock(spinlock_t* lock, unsigned long flags) DOOR(spin_unlock_irqrestore);
unsigned long real_read_lock(rwlock_t* lock) BEHIND_DOOR(read_lock_irqsave);
unsigned long door_read_lock(rwlock_t* lock) DOOR(read_lock_irqsave);
unsigned long real_write_lock(rwlock_t* lock) BEHIND_DOOR(write_lock_irqsave);
unsigned long door_write_lock(rwlock_t* lock) DOOR(write_lock_irqsave);
void* real_alloc_rmpp_buf(gsi_dtgrm_t* dtgrm, u32 size) BEHIND_DOOR(gsi_dtgrm_alloc_rmpp_buf);
void* door_alloc_rmpp_buf(gsi_dtgrm_t* dtgrm, u32 size) DOOR(gsi_dtgrm_alloc_rmpp_buf);
void* real_get_rmpp_buf(gsi_dtgrm_t* dtgrm, int* size) BEHIND_DOOR(gsi_dtgrm_get_rmpp_buf);
void* door_get_rmpp_buf(gsi_dtgrm_t* dtgrm, int* size) DOOR(gsi_dtgrm_get_rmpp_buf);
int real_deregister_class(gsi_class_handle_t handle) BEHIND_DOOR(gsi_deregister_class);
int door_deregister_class(gsi_class_handle_t handle) DOOR(gsi_deregister_class);
void real_remove_proc(const char* name, proc_dir_entry* parent) BEHIND_DOOR(remove_proc_entry);
void door_remove_proc(const char* name, proc_dir_entry* parent) DOOR(remove_proc_entry);
void real_schedule() BEHIND_DOOR(schedule);
void door_schedule() DOOR(schedule);

unsigned long door_jiffies() {
    return real_jiffies() * stress::clock_speed.load(std::memory_order_relaxed) +
           stress::skipped.load(std::memory_order_relaxed);
}

/* The host counts in its own ticks. */
void door_add_timing(timer_list* timer) {
    if (stress::is_by_hand(timer))
        return;
    const unsigned long speed = stress::clock_speed.load(std::memory_order_relaxed);
    const unsigned long now = door_jiffies();
    const unsigned long ticks = timer->expires > now ? timer->expires - now : 0;
    timer->expires = real_jiffies() + (ticks + speed - 1) / speed;
    real_add_timing(timer);
}

int door_del_timing_sync(timer_list* timer) {
    visit(Door::timer_stop, timer);
    const int was_armed = real_del_timing_sync(timer);
    visit(Door::timer_stopped, timer);
    return was_armed;
}

unsigned long door_spin_lock(spinlock_t* lock) {
    stress::come_to_lock(lock);
    return real_spin_lock(lock);
}

void door_spin_unlock(spinlock_t* lock, unsigned long flags) {
    real_spin_unlock(lock, flags);
    visit(Door::unlocked, lock);
}

unsigned long door_read_lock(rwlock_t* lock) {
    stress::come_to_lock(lock);
    return real_read_lock(lock);
}

unsigned long door_write_lock(rwlock_t* lock) {
    stress::come_to_lock(lock);
    return real_write_lock(lock);
}

void* door_alloc_rmpp_buf(gsi_dtgrm_t* dtgrm, u32 size) {
    visit(Door::query_buffer, dtgrm);
    return real_alloc_rmpp_buf(dtgrm, size);
}

void* door_get_rmpp_buf(gsi_dtgrm_t* dtgrm, int* size) {
    visit(Door::answer_buffer, dtgrm);
    return real_get_rmpp_buf(dtgrm, size);
}

int door_deregister_class(gsi_class_handle_t handle) {
    const int refused = real_deregister_class(handle);
    if (refused)
        visit(Door::class_still_busy, handle);
    return refused;
}

void door_remove_proc(const char* name, proc_dir_entry* parent) {
    visit(Door::file_removal, name);
    real_remove_proc(name, parent);
}

void door_schedule() {
    visit(Door::idle, nullptr);
    real_schedule();
}

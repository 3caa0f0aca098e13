// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The plain host: the waist as thin as a kernel makes it. No check, no account of memory, no faults
// to be made; one virtual clock. A lock for reading costs what one costs in a kernel whose readers
// do not share a cache line: an exchange in a slot of the reader's own.
//
// It has what the table and the lists call. Whoever reaches for the rest is stopped.
#include <semaphore.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <thread>

#include "bench/bench.h"
#include "host/reader_writer_lock.h"
#include "platform/bug.h"
#include "platform/jiffies.h"
#include "platform/logger.h"
#include "platform/printk.h"
#include "platform/semaphore.h"
#include "platform/spinlock.h"
#include "platform/string.h"
#include "platform/timer.h"

namespace {

/* As in a kernel on several CPUs: an exchange to take it, a store to give it back. */
class SpinLock {
  public:
    void lock() {
        while (taken_.exchange(true, std::memory_order_acquire))
            while (taken_.load(std::memory_order_relaxed))
                __builtin_ia32_pause();
    }
    void unlock() { taken_.store(false, std::memory_order_release); }

  private:
    std::atomic<bool> taken_ = false;
};

template <class L>
L& lock_in(const unsigned char* room) {
    return *std::launder(reinterpret_cast<L*>(const_cast<unsigned char*>(room)));
}

std::atomic<unsigned long> now = 1000;
std::multimap<unsigned long, timer_list*> armed;  // by due tick; one thread passes the time

}  // namespace

namespace bench {

const char* const host_name = "plain";

Host::Host() = default;
Host::~Host() = default;

void pass_ticks(unsigned long ticks) {
    const unsigned long last = now + ticks;
    while (!armed.empty() && armed.begin()->first <= last) {
        const auto due = armed.extract(armed.begin());
        now = due.key();
        due.mapped()->function(due.mapped()->data);
    }
    now = last;
}

}  // namespace bench

constinit int logger_trace_level = 0;

int printk(const char*, ...) {
    return 0;
}

int ksnprintf(char* buffer, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

void bug(const char* expression, const char* file, u32 line) {
    std::fprintf(stderr, "bug at %s line %u: %s does not hold\n", file, line, expression);
    std::abort();
}

void* kmalloc(size_t size, gfp_t) {
    return std::malloc(size);
}

void kfree(const void* memory) {
    std::free(const_cast<void*>(memory));
}

unsigned long jiffies() {
    return now.load(std::memory_order_relaxed);
}

void init_timing(timer_list*) {}

void add_timing(timer_list* timer) {
    armed.emplace(timer->expires, timer);
}

int del_timing_sync(timer_list* timer) {
    return std::erase_if(armed, [timer](const auto& one) { return one.second == timer; }) != 0;
}

void spin_lock_init(spinlock_t* lock, const char*) {
    new (lock->room) SpinLock;
}

void rwlock_init(rwlock_t* lock, const char*) {
    new (lock->room) host::ReaderWriterLock;
}

unsigned long spin_lock_irqsave(spinlock_t* lock) {
    lock_in<SpinLock>(lock->room).lock();
    return 0;
}

unsigned long read_lock_irqsave(rwlock_t* lock) {
    lock_in<host::ReaderWriterLock>(lock->room).lock_shared();
    return 0;
}

unsigned long write_lock_irqsave(rwlock_t* lock) {
    lock_in<host::ReaderWriterLock>(lock->room).lock();
    return 0;
}

void spin_unlock_irqrestore(spinlock_t* lock, unsigned long) {
    lock_in<SpinLock>(lock->room).unlock();
}

void read_unlock_irqrestore(rwlock_t* lock, unsigned long) {
    lock_in<host::ReaderWriterLock>(lock->room).unlock_shared();
}

void write_unlock_irqrestore(rwlock_t* lock, unsigned long) {
    lock_in<host::ReaderWriterLock>(lock->room).unlock();
}

bool spin_is_held(const spinlock_t*) {
    return true;
}

bool read_is_held(const rwlock_t*) {
    return true;
}

bool write_is_held(const rwlock_t*) {
    return true;
}

/* Drivers come and go under one. */
void sema_init(semaphore* sem, int count, const char*) {
    sem_init(&lock_in<sem_t>(sem->room), 0, static_cast<unsigned>(count));
}

void down(semaphore* sem) {
    while (sem_wait(&lock_in<sem_t>(sem->room)) != 0) {
    }
}

void up(semaphore* sem) {
    sem_post(&lock_in<sem_t>(sem->room));
}

void schedule() {
    std::this_thread::yield();
}

#define ABSENT(name)                                            \
    extern "C" void plat_##name() {                             \
        bench::stop_because(#name " is not in the plain host"); \
    }
ABSENT(base_gid2port_num)
ABSENT(copy_from_user)
ABSENT(create_proc_entry)
ABSENT(gsi_deregister_class)
ABSENT(gsi_dtgrm_alloc_rmpp_buf)
ABSENT(gsi_dtgrm_get_rmpp_buf)
ABSENT(gsi_dtgrm_pool_create_named)
ABSENT(gsi_dtgrm_pool_destroy)
ABSENT(gsi_dtgrm_pool_get)
ABSENT(gsi_dtgrm_pool_put)
ABSENT(gsi_post_send_dtgrm)
ABSENT(gsi_register_class)
ABSENT(gx_default_hca_name)
ABSENT(gx_dell_sleepable_async_event_cb)
ABSENT(gx_hca_close)
ABSENT(gx_hca_open)
ABSENT(gx_set_sleepable_async_event_cb)
ABSENT(inter_module_register)
ABSENT(inter_module_unregister)
ABSENT(isspace)
ABSENT(pkey_index2pkey)
ABSENT(port_num2base_gid)
ABSENT(port_num2base_lid)
ABSENT(proc_mkdir)
ABSENT(remove_proc_entry)
ABSENT(rep_close_key)
ABSENT(rep_get_root)
ABSENT(rep_get_value)
ABSENT(rep_notify_del)
ABSENT(rep_notify_key_change)
ABSENT(rep_open_key)
ABSENT(simple_strtoul)
ABSENT(strcmp)
ABSENT(strlen)
ABSENT(strsep)
ABSENT(this_module)
ABSENT(trace_lvl_change_cb)

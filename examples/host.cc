// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The least that a host of the module has to be: every call of platform/, in the order in which
// docs/platform.md takes them, so that the module loads, takes commands, shows its table and goes
// again. One thread, time that moves when it is told to, and an adapter without ports.
//
// It is what a port begins with: each part says what a real kernel has to put in its place.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "platform/bug.h"
#include "platform/gsi.h"
#include "platform/jiffies.h"
#include "platform/logger.h"
#include "platform/memory.h"
#include "platform/module.h"
#include "platform/printk.h"
#include "platform/proc.h"
#include "platform/repository.h"
#include "platform/semaphore.h"
#include "platform/spinlock.h"
#include "platform/string.h"
#include "platform/timer.h"
#include "platform/uaccess.h"
#include "platform/verbs.h"
#include "tarv/tarv-module.h"

// 1. Text, memory and the end. A kernel has them all; its own printf differs in %p.

int printk(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vprintf(format, arguments);
    va_end(arguments);
    return length;
}

int ksnprintf(char* buffer, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

int kstrcmp(const char* a, const char* b) {
    return std::strcmp(a, b);
}
size_t kstrlen(const char* s) {
    return std::strlen(s);
}
char* kstrsep(char** s, const char* separators) {
    return strsep(s, separators);
}
int kisspace(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r') || c == 0xA0;
}
unsigned long simple_strtoul(const char* s, char** end, unsigned int base) {
    return std::strtoul(s, end, static_cast<int>(base));  // takes signs and blanks, too
}

static long allocations;  // that have not been given back

void* kmalloc(size_t size, gfp_t) {
    ++allocations;
    return std::malloc(size);
}
void kfree(const void* memory) {
    allocations -= memory != nullptr;
    std::free(const_cast<void*>(memory));
}
unsigned long copy_from_user(void* to, const void* from, unsigned long size) {
    std::memcpy(to, from, size);  // there is one address space
    return 0;
}

void bug(const char* expression, const char* file, u32 line) {
    std::fprintf(stderr, "%s:%u: %s does not hold\n", file, line, expression);
    std::abort();
}

// 2. Locks. With several CPUs: spin locks with interrupts off, a reader-writer lock whose readers
// do not share a cache line, semaphores that put waiters to sleep. One thread alone needs no more
// than to see that nobody would wait for ever.

static int locks_held;

static unsigned long take() {
    if (locks_held++ != 0)
        bug("no two locks are held together", __FILE_NAME__, __LINE__);
    return 0;
}

void spin_lock_init(spinlock_t*, const char*) {}
void rwlock_init(rwlock_t*, const char*) {}
unsigned long spin_lock_irqsave(spinlock_t*) {
    return take();
}
unsigned long read_lock_irqsave(rwlock_t*) {
    return take();
}
unsigned long write_lock_irqsave(rwlock_t*) {
    return take();
}
void spin_unlock_irqrestore(spinlock_t*, unsigned long) {
    --locks_held;
}
void read_unlock_irqrestore(rwlock_t*, unsigned long) {
    --locks_held;
}
void write_unlock_irqrestore(rwlock_t*, unsigned long) {
    --locks_held;
}
bool spin_is_held(const spinlock_t*) {
    return locks_held == 1;
}
bool read_is_held(const rwlock_t*) {
    return locks_held == 1;
}
bool write_is_held(const rwlock_t*) {
    return locks_held == 1;
}

void sema_init(semaphore* sem, int count, const char*) {
    std::memcpy(sem->room, &count, sizeof count);
}
static void add_places(semaphore* sem, int more) {
    int places;
    std::memcpy(&places, sem->room, sizeof places);
    places += more;
    if (places < 0)
        bug("somebody is there to give the place back", __FILE_NAME__, __LINE__);
    std::memcpy(sem->room, &places, sizeof places);
}
void down(semaphore* sem) {
    add_places(sem, -1);
}
void up(semaphore* sem) {
    add_places(sem, 1);
}
void schedule() {}

// 3. Time. A kernel's timers fire by themselves, in a context that may not sleep.

static unsigned long now = 1000;
static std::multimap<unsigned long, timer_list*> armed;  // by the tick at which they are due

unsigned long jiffies() {
    return now;
}
void init_timing(timer_list*) {}
void add_timing(timer_list* timer) {
    armed.emplace(timer->expires, timer);
}
int del_timing_sync(timer_list* timer) {
    return std::erase_if(armed, [timer](const auto& row) { return row.second == timer; }) != 0;
}

static void advance(unsigned long ticks) {
    const unsigned long last = now + ticks;
    while (!armed.empty() && armed.begin()->first <= last) {
        const auto due = armed.extract(armed.begin());
        now = due.key();
        due.mapped()->function(due.mapped()->data);
    }
    now = last;
}

// 4. Files below /proc, by their paths. Without promises of the read side that several readers
// need.

static std::map<std::string, proc_dir_entry> files;

proc_dir_entry* create_proc_entry(const char* name, u16 mode, proc_dir_entry*) {
    proc_dir_entry& entry = files[name];
    entry = {};
    entry.mode = mode;
    return &entry;
}
proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) {
    return create_proc_entry(name, 0555, parent);
}
void remove_proc_entry(const char* name, proc_dir_entry*) {
    files.erase(name);
}

static void write_file(const char* name, const std::string& text) {
    proc_dir_entry& file = files.at(name);
    file.write_proc(nullptr, text.data(), text.size(), file.data);
}

static std::string read_file(const char* name) {
    proc_dir_entry& file = files.at(name);
    std::string text;
    char page[PAGE_SIZE];
    constexpr int room = sizeof page;
    off_t offset = 0;
    for (int end = 0; end == 0;) {
        char* start = nullptr;
        const auto got = file.read_proc(page, &start, offset, room, &end, file.data);
        if (got <= 0)
            break;
        const bool is_number = start && start < page;  // by which the offset goes on
        text.append(is_number ? page : start ? start : page + offset, static_cast<size_t>(got));
        offset += is_number ? reinterpret_cast<off_t>(start) : got;
    }
    return text;
}

// 5. Names between modules, and the configuration, which here has no key: nothing is traced.

static std::set<std::string> names;

struct module* this_module() {
    return nullptr;
}
void inter_module_register(const char* name, struct module*, const void*) {
    if (!names.insert(name).second)
        bug("the name is free", __FILE_NAME__, __LINE__);
}
void inter_module_unregister(const char* name) {
    names.erase(name);
}

constinit int logger_trace_level = 5;
void trace_lvl_change_cb(rep_key_t, u64 value, void* context) {
    *static_cast<int*>(context) = static_cast<int>(value);
}
rep_key_t rep_get_root() {
    return nullptr;
}
int rep_open_key(rep_key_t, const char*, u32, rep_key_t*) {
    return -1;
}
int rep_get_value(rep_key_t, const char*, u32, void*, u32*) {
    return -1;
}
int rep_notify_key_change(rep_key_t, u32, u32, rep_change_cb_t*, void*, rep_notify_t*) {
    return -1;
}
void rep_close_key(rep_key_t) {}
void rep_notify_del(rep_notify_t) {}

// 6. The adapter. This one has not come yet: it can be opened, has no ports, and tells of no event.
// One that has ports answers the address services from a picture of them, at once.

static gx_return_t no_ports(void*, gx_hca_attrib_t* attributes) {
    *attributes = {};
    return gx_return_ok;
}
static gx_return_t no_port(void*, u8, gx_port_attrib_t*) {
    return gx_return_invalid_param;
}
static gx_return_t no_gids(void*, u8, u32*, gx_gid_t*) {
    return gx_return_invalid_param;
}
static gx_return_t no_pkeys(void*, u8, u32*, gx_p_key_t*) {
    return gx_return_invalid_param;
}
static const gx_hca_ops_t operations = {nullptr, no_ports, no_port, no_gids, no_pkeys};
static gx_hca_t adapter = {&operations, nullptr};

const char* gx_default_hca_name() {
    return "hca0";
}
gx_return_t gx_hca_open(const char*, u32, gx_hca_h_t* hca) {
    *hca = &adapter;
    return gx_return_ok;
}
gx_return_t gx_hca_close(gx_hca_h_t) {
    return gx_return_ok;
}
gx_return_t gx_set_sleepable_async_event_cb(gx_hca_h_t, gx_request_event_record_t,
                                            gx_sleepable_async_event_cb_t*) {
    return gx_return_ok;
}
gx_return_t gx_dell_sleepable_async_event_cb(gx_hca_h_t, gx_sleepable_async_event_cb_t*) {
    return gx_return_ok;
}
int port_num2base_gid(gx_hca_h_t, u8, gx_gid_t*) {
    return -1;
}
int port_num2base_lid(gx_hca_h_t, u8, gx_lid_t*) {
    return -1;
}
int base_gid2port_num(gx_hca_h_t, const gx_gid_t*, int*) {
    return -1;
}
int pkey_index2pkey(gx_hca_h_t, u8, int, gx_p_key_t*) {
    return -1;
}

// 7. The GSI service: registrations and datagrams, a port at a time. Without ports nobody asks.

int gsi_register_class(u8, u8, const char*, u8, int, int, gsi_dtgrm_cb_t*, gsi_dtgrm_cb_t*, void*,
                       gsi_class_handle_t*) {
    return -1;
}
int gsi_deregister_class(gsi_class_handle_t) {
    return 0;
}
int gsi_dtgrm_pool_create_named(u32, gsi_dtgrm_pool_handle_t*, const char*) {
    return -1;
}
void gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t) {}
int gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t, gsi_dtgrm_t**) {
    return -1;
}
void gsi_dtgrm_pool_put(gsi_dtgrm_t*) {}
void* gsi_dtgrm_alloc_rmpp_buf(gsi_dtgrm_t*, u32) {
    return nullptr;
}
void* gsi_dtgrm_get_rmpp_buf(gsi_dtgrm_t*, int*) {
    return nullptr;
}
int gsi_post_send_dtgrm(gsi_class_handle_t, gsi_dtgrm_t*) {
    return -1;
}

/* A load, an entry by hand that outlives its age, one look at the table, and the end. */
int main() {
    constexpr const char* control = "quorvane/tarv/control";
    if (const int result = tarv_module.init(); result != 0)
        return std::printf("the module was not loaded: %d\n", result), 1;
    write_file(control, "add 10.0.0.1 10.0.0.2 5 0x48 17\n");
    advance(600 * HZ);
    const std::string table = read_file(control);
    std::printf("%s", table.c_str());
    tarv_module.exit();
    // The directories stay, as those of other modules may be below them.
    const bool gone =
        allocations == 0 && armed.empty() && names.empty() && !files.contains(control);
    std::printf("%s\n", gone ? "Nothing remains." : "Something remains.");
    return gone && table.find("\n10.0.0.2 ") != table.npos ? 0 : 1;
}

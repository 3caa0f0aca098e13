// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Contexts, what a thread holds, and how the program ends when a rule is broken.
#include "host/check.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "host/internal.h"
#include "platform/bug.h"

namespace host {

constinit thread_local ThreadState this_thread;
std::atomic<std::uint64_t> current_epoch{0};
std::atomic<const ThreadState*> only_thread{nullptr};
std::atomic<bool> files_keep_modules{true};

void die(const char* format, ...) {
    // One buffer and one write, so that the messages of two dying threads do not mix.
    char text[1024];
    int used = std::snprintf(text, sizeof text, "host: ");
    va_list arguments;
    va_start(arguments, format);
    used += std::vsnprintf(text + used, sizeof text - static_cast<std::size_t>(used), format,
                           arguments);
    va_end(arguments);
    if (used < static_cast<int>(sizeof text))
        std::snprintf(text + used, sizeof text - static_cast<std::size_t>(used),
                      " [%s context, holding %s]\n", name_of(this_thread.context),
                      this_thread.held ? this_thread.held_name : "no lock");
    std::fputs(text, stderr);
    std::fflush(stderr);
    std::abort();
}

void die_at_the_door(const char* call) {
    if (current_epoch.load(std::memory_order_relaxed) == 0)
        die("%s: there is no Kernel", call);
    die("%s: called from a second thread, but virtual time has only one", call);
}

const char* name_of(Context context) {
    static constexpr const char* names[] = {"process", "event", "timer", "gsi", "driver"};
    return names[static_cast<std::size_t>(context)];
}

bool is_atomic(Context context) {
    return context != Context::process && context != Context::event;
}

Context current_context() {
    return this_thread.context;
}

ContextScope::ContextScope(Context context) : before_(this_thread.context) {
    if (is_atomic(before_) && !is_atomic(context))
        die("ContextScope: %s context cannot begin inside %s context", name_of(context),
            name_of(before_));
    this_thread.context = context;
}

ContextScope::~ContextScope() {
    this_thread.context = before_;
}

DriverCall::DriverCall(const char* function) : outer_(this_thread.driver_call) {
    must_hold_no_lock(function);
    this_thread.driver_call = function;
}

DriverCall::~DriverCall() {
    this_thread.driver_call = outer_;
}

bool may_sleep() {
    return !is_atomic(this_thread.context) && !this_thread.held && !this_thread.driver_call;
}

void must_sleep(const char* call) {
    if (is_atomic(this_thread.context))
        die("%s: may sleep, but was called in %s context", call, name_of(this_thread.context));
    if (this_thread.driver_call)
        die("%s: may sleep, but was called inside %s", call, this_thread.driver_call);
    if (this_thread.held)
        die("%s: may sleep, but was called with the lock %s held", call, this_thread.held_name);
}

void must_hold_no_lock(const char* call) {
    if (this_thread.held)
        die("%s: called with the lock %s held", call, this_thread.held_name);
}

void must_return_lock_free(const char* what, const void* function) {
    if (this_thread.held)
        die("%s %s returned with the lock %s held", what,
            function ? describe_address(function).c_str() : "", this_thread.held_name);
}

std::string held_locks() {
    return this_thread.held ? this_thread.held_name : "";
}

std::string describe_address(const void* address) {
    char text[512];
    Dl_info info = {};
    const auto offset_from = [&](const void* base) {
        return static_cast<unsigned long>(static_cast<const char*>(address) -
                                          static_cast<const char*>(base));
    };
    if (dladdr(address, &info) && info.dli_sname)
        std::snprintf(text, sizeof text, "%s+0x%lx", info.dli_sname, offset_from(info.dli_saddr));
    else if (info.dli_fname)
        std::snprintf(text, sizeof text, "%s+0x%lx", info.dli_fname, offset_from(info.dli_fbase));
    else
        std::snprintf(text, sizeof text, "%p", address);
    return text;
}

}  // namespace host

void bug(const char* expression, const char* file, u32 line) {
    host::die("bug at %s line %u: %s does not hold", file, line, expression);
}

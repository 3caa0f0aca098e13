// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Every rule of the host's kernel, broken once: the program must end at the line that breaks it,
// with a message that names the offender.
#include "host/check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "host/services.h"
#include "platform/bug.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "platform/module.h"
#include "platform/proc.h"
#include "platform/repository.h"
#include "platform/semaphore.h"
#include "platform/spinlock.h"
#include "platform/timer.h"
#include "platform/uaccess.h"

namespace {

using host::Clock;
using host::Context;
using host::ContextScope;
using host::Kernel;

spinlock_t one, two, never_ready;
rwlock_t rw;
semaphore sem;
timer_list timer;
constinit semaphore sem_never_ready{};

void in_timer(void (*broken)()) {
    const ContextScope scope(Context::timer);
    broken();
}

void under_lock(void (*broken)()) {
    const spin_guard guard(one);
    broken();
}

void start_timer(timer_list* which, void (*function)(unsigned long)) {
    init_timing(which);
    which->function = function;
    which->expires = ::jiffies() + 5;
    add_timing(which);
}

struct Rule {
    const char* name;
    const char* message;  ///< a regular expression
    void (*broken)();
    Clock clock = Clock::virtual_time;
};

void PrintTo(const Rule& rule, std::ostream* out) {
    *out << rule.name;
}

class BrokenRule : public testing::TestWithParam<Rule> {};

TEST_P(BrokenRule, EndsTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Kernel kernel({.clock = GetParam().clock});
            spin_lock_init(&one, "one");
            spin_lock_init(&two, "two");
            rwlock_init(&rw, "rw");
            sema_init(&sem, 1, "sem");
            GetParam().broken();
        },
        GetParam().message);
}

// clang-format off
const Rule context_rules[] = {
    {"AllocationInTimer", "kmalloc\\(GFP_KERNEL\\): may sleep.*timer context", [] { in_timer([] { kmalloc(8, GFP_KERNEL); }); }},
    {"AllocationUnderLock", "kmalloc\\(GFP_KERNEL\\): may sleep.*lock one held", [] { under_lock([] { kmalloc(8, GFP_KERNEL); }); }},
    {"LargeAllocationAtOnce", "kmalloc\\(GFP_ATOMIC\\): 4097 bytes are more than a page", [] { kmalloc(4097, GFP_ATOMIC); }},
    {"LargeMemoryFreedInTimer", "kfree of more than a page: may sleep.*timer context",
     [] {
         static void* const memory = kmalloc(4097, GFP_KERNEL);
         in_timer([] { kfree(memory); });
     }},
    {"ScheduleInTimer", "schedule: may sleep.*timer", [] { in_timer([] { ::schedule(); }); }},
    {"DownInReceive", "down: may sleep.*gsi context", [] { const ContextScope scope(Context::gsi); down(&sem); }},
    {"CopyFromUserUnderLock", "copy_from_user: may sleep", [] { under_lock([] { char to = 0; copy_from_user(&to, "x", 1); }); }},
    {"ProcEntryInDriver", "create_proc_entry: may sleep.*driver",
     [] {
         const ContextScope scope(Context::driver);
         create_proc_entry("x", 0, nullptr);
     }},
    {"RepositoryInTimer", "rep_get_root: may sleep", [] { in_timer([] { rep_get_root(); }); }},
    {"AdvanceInTimer", "advance: may sleep", [] { in_timer([] { Kernel::current().advance(1); }); }},
    {"ProcessInsideTimer", "process context cannot begin inside timer", [] { in_timer([] { const ContextScope scope(Context::process); }); }},
    {"NestedReceiveIsAtomic", "kmalloc.*driver context",
     [] {
         Kernel::current().schedule(Context::event, 0, [] {
             const ContextScope scope(Context::driver);
             kmalloc(8, GFP_KERNEL);
         });
         Kernel::current().settle();
     }},
    {"CallOutUnderLock", "send_arp: called with the lock one held", [] { under_lock([] { host::must_hold_no_lock("send_arp"); }); }},
    {"SecondThread", "jiffies: called from a second thread", [] { std::thread([] { ::jiffies(); }).join(); }},
    {"SecondKernel", "a second one is made", [] { const Kernel another; }},
    {"AssertionFails",
     "host: bug at host_checks_test.cc line [0-9]+: spin_is_held\\(&two\\) does not hold "
     "\\[process context, holding one\\]",
     [] { under_lock([] { KASSERT(spin_is_held(&two)); }); }},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Context, BrokenRule, testing::ValuesIn(context_rules),
                         [](const auto& rule) { return rule.param.name; });

// clang-format off
const Rule lock_rules[] = {
    {"TwoTogether", "lock two is taken while one is held", [] { under_lock([] { const spin_guard second(two); }); }},
    {"ReaderUnderSpinLock", "lock rw is taken while one is held", [] { under_lock([] { const read_guard second(rw); }); }},
    {"TakenTwice", "lock one is taken twice", [] { under_lock([] { spin_lock_irqsave(&one); }); }},
    {"ReadTwice", "lock rw is taken twice", [] { const read_guard guard(rw); read_lock_irqsave(&rw); }},
    {"NeverReady", "lock at .* was never initialised", [] { spin_lock_irqsave(&never_ready); }},
    {"ReadyUnderAnEarlierKernelOnly", "lock at .* was never initialised", [] { Kernel::current().~Kernel(); new Kernel; spin_lock_irqsave(&one); }},
    {"MadeReadyWhileHeld", "lock one is made ready while it is held", [] { under_lock([] { spin_lock_init(&one, "one"); }); }},
    {"MadeReadyWhileRead", "lock rw is made ready while it is held", [] { const read_guard guard(rw); rwlock_init(&rw, "rw"); }},
    {"ReleasedUnheld", "lock one is released by a thread that does not hold it", [] { spin_unlock_irqrestore(&one, 0); }},
    {"ReleasedByAnother", "lock one is released by a thread that does not hold it",
     [] {
         const unsigned long flags = spin_lock_irqsave(&one);
         std::thread([flags] { spin_unlock_irqrestore(&one, flags); }).join();
     },
     Clock::real_time},
    {"ReadReleasedAsWrite", "lock rw was taken for reading and is released for writing",
     [] { write_unlock_irqrestore(&rw, read_lock_irqsave(&rw)); }},
    {"WriteReleasedAsRead", "lock rw was taken for writing and is released for reading",
     [] { read_unlock_irqrestore(&rw, write_lock_irqsave(&rw)); }},
    {"FlagsOfAnEarlierLock", "lock one is released with interrupt flags that are not its own",
     [] {
         const unsigned long flags = spin_lock_irqsave(&one);
         spin_unlock_irqrestore(&one, flags);
         spin_lock_irqsave(&one);
         spin_unlock_irqrestore(&one, flags);
     }},
    {"TimerReturnsHolding", "timer function .* returned with the lock one held",
     [] {
         start_timer(&timer, [](unsigned long) { spin_lock_irqsave(&one); });
         Kernel::current().advance(9);
     }},
    {"WorkReturnsHolding", "work .* returned with the lock one held",
     [] {
         Kernel::current().schedule(Context::gsi, 0, [] { spin_lock_irqsave(&one); });
         Kernel::current().settle();
     },
     Clock::real_time},
    {"SemaphoreNeverReady", "down: the semaphore at .* was never initialised", [] { down(&sem_never_ready); }},
    {"SemaphoreMadeReadyWhileHeld", "semaphore sem is made ready while it is held", [] { down(&sem); sema_init(&sem, 1, "sem"); }},
    {"SemaphoreGivenBackTwice", "semaphore sem is given back more often than taken", [] { up(&sem); }},
    {"SemaphoreWaitsForItself", "down: waits for sem, which nobody is left to give", [] { down(&sem); down(&sem); }},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Lock, BrokenRule, testing::ValuesIn(lock_rules),
                         [](const auto& rule) { return rule.param.name; });

/* A module with a name for others and a file. */
const module_info_t owner = {
    .name = "owner",
    .description = "",
    .depends = "",
    .vermagic = "",
    .init =
        [] {
            inter_module_register("f", this_module(), &one);
            create_proc_entry("f", 0, nullptr)->owner = this_module();
            return 0;
        },
    .exit =
        [] {
            inter_module_unregister("f");
            remove_proc_entry("f", nullptr);
        },
    .params = nullptr,
    .param_count = 0,
    .exports = nullptr,
    .export_count = 0,
};

// clang-format off
const Rule service_rules[] = {
    {"FreedTwice", "kfree: the memory at .* is freed twice", [] { void* const memory = kmalloc(24, GFP_ATOMIC); kfree(memory); kfree(memory); }},
    {"FreedInTheMiddle", "kfree: the memory at .* is not from kmalloc", [] { kfree(static_cast<char*>(kmalloc(24, GFP_ATOMIC)) + 8); }},
    {"FreedFromTheStack", "kfree: the memory at .* is not from kmalloc", [] { const int local = 0; kfree(&local); }},
    {"FreedWithArmedTimer", "kfree: the memory at .* holds the timer at .*, which is armed",
     [] {
         void* const memory = kmalloc(sizeof(timer_list) + 64, GFP_KERNEL);
         start_timer(reinterpret_cast<timer_list*>(static_cast<char*>(memory) + 32),
                     [](unsigned long) {});
         kfree(memory);
     }},
    {"TimerNeverReady", "add_timing: the timer at .* was never initialised", [] { static timer_list fresh{}; add_timing(&fresh); }},
    {"TimerAddedWhilePending", "add_timing: the timer at .* is pending", [] { start_timer(&timer, [](unsigned long) {}); add_timing(&timer); }},
    {"TimerMadeReadyWhilePending", "init_timing: the timer at .* is pending", [] { start_timer(&timer, [](unsigned long) {}); init_timing(&timer); }},
    {"TimerStopsItself", "del_timing_sync: called from the timer's own function",
     [] {
         start_timer(&timer, [](unsigned long) { del_timing_sync(&timer); });
         Kernel::current().advance(9);
     }},
    {"TimerStoppedUnderLock", "del_timing_sync: may sleep.*lock one",
     [] {
         start_timer(&timer, [](unsigned long) {});
         under_lock([] { del_timing_sync(&timer); });
     }},
    {"NameTaken", "inter_module_register: the name f is taken",
     [] {
         inter_module_register("f", nullptr, &one);
         inter_module_register("f", nullptr, &two);
     }},
    {"NameUnknown", "inter_module_unregister: nobody registered the name f",
     [] { inter_module_unregister("f"); }},
    {"NameInUseAtTheUnload", "unload_module: owner is in use: f",
     [] {
         host::load_module(owner);
         host::inter_module_get("f");
         host::unload_module(owner);
     }},
    {"NamePutTwice", "inter_module_put: nobody uses the name f",
     [] {
         host::load_module(owner);
         host::InterModuleUse use("f");
         host::inter_module_put("f");
     }},
    {"FileOpenAtTheUnload", "unload_module: owner is in use: 1 open files",
     [] {
         host::load_module(owner);
         const host::ProcFile file("f");
         host::unload_module(owner);
     }},
    {"ProcEntryMissing", "remove_proc_entry: there is no entry a/b",
     [] { remove_proc_entry("a/b", nullptr); }},
    {"ProcDirectoryNotEmpty", "remove_proc_entry: the directory a is not empty",
     [] {
         proc_mkdir("a", nullptr);
         create_proc_entry("a/b", 0, nullptr);
         remove_proc_entry("a", nullptr);
     }},
    {"KeyClosedTwice", "rep_close_key: the key at .* is not open",
     [] {
         host::set_repository_value("k/", "v", 1);
         rep_key_t key = nullptr;
         rep_open_key(rep_get_root(), "k/", 0, &key);
         rep_close_key(key);
         rep_close_key(key);
     }},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Service, BrokenRule, testing::ValuesIn(service_rules),
                         [](const auto& rule) { return rule.param.name; });

TEST(Checks, AModuleThatNobodyUsesAnyMoreGoes) {
    const Kernel kernel;
    host::load_module(owner);
    {
        const host::InterModuleUse use("f"), second("f");
        const host::ProcFile file("f");
        EXPECT_EQ(use.data(), &one);
    }
    host::unload_module(owner);
    EXPECT_FALSE(host::InterModuleUse("f"));
}

TEST(Checks, ALockMayBeMadeReadyAgainAndIsNamedWhileHeld) {
    for (int load = 0; load < 2; ++load) {
        const Kernel kernel;
        spin_lock_init(&one, "first name");
        spin_lock_init(&one, "one");
        EXPECT_EQ(host::held_locks(), "");
        const spin_guard guard(one);
        EXPECT_EQ(host::held_locks(), "one");
    }
}

TEST(Checks, WhoHoldsALockIsKnown) {
    const Kernel kernel({.clock = Clock::real_time});
    spin_lock_init(&one, "one");
    rwlock_init(&rw, "rw");
    const auto held = [] {
        return (spin_is_held(&one) ? "s" : "") + std::string(read_is_held(&rw) ? "r" : "") +
               (write_is_held(&rw) ? "w" : "");
    };
    EXPECT_EQ(held(), "");
    {
        const spin_guard guard(one);
        EXPECT_EQ(held(), "s");
    }
    {
        const read_guard guard(rw);
        EXPECT_EQ(held(), "r");
        std::thread([&] { EXPECT_EQ(held(), "") << "another thread's lock"; }).join();
    }
    const write_guard guard(rw);
    EXPECT_EQ(held(), "rw");
}

TEST(Checks, FreshMemoryIsJunkAndTheAccountIsKept) {
    const Kernel kernel;
    auto* const memory = static_cast<unsigned char*>(kmalloc(100, GFP_KERNEL));
    ASSERT_NE(memory, nullptr);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(memory[i], 0xA5);
    kfree(kmalloc(50, GFP_ATOMIC));
    kfree(nullptr);
    const host::MemoryUse use = host::memory_use();
    EXPECT_EQ(use.blocks, 1u);
    EXPECT_EQ(use.bytes, 100u);
    EXPECT_EQ(use.peak_bytes, 150u);
    EXPECT_EQ(use.allocations, 2u);
    ASSERT_EQ(kernel.remains().size(), 1u);
    EXPECT_EQ(kernel.remains()[0].find("memory: 100 bytes, allocated at "), 0u);
    kfree(memory);
    EXPECT_TRUE(kernel.remains().empty());
}

}  // namespace

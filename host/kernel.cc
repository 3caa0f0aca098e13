// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The life of a Kernel: its services begin and end with it, one Kernel at a time.
#include "host/kernel.h"

#include <array>
#include <mutex>

#include "host/check.h"
#include "host/executor.h"
#include "host/internal.h"
#include "platform/jiffies.h"

namespace host {
namespace {

using Report = std::function<void(std::vector<std::string>&)>;

constexpr std::array services = {&fault_service,     &console_service, &memory_service,
                                 &timer_service,     &proc_service,    &module_service,
                                 &repository_service};

Kernel* the_kernel = nullptr;
Executor* the_executor = nullptr;

std::uint64_t next_epoch() {
    static std::uint64_t last = 0;
    return ++last;
}

}  // namespace

struct Kernel::Impl {
    Clock clock;
    std::unique_ptr<Executor> executor;
    mutable std::mutex watchers_mutex;
    std::vector<std::weak_ptr<Report>> watchers;
};

Executor& executor() {
    return *the_executor;
}

Kernel::Kernel(const Options& options) : impl_(std::make_unique<Impl>()) {
    if (the_kernel)
        die("Kernel: a second one is made while one exists");
    impl_->clock = options.clock;
    current_epoch = next_epoch();
    const bool one_thread = options.clock == Clock::virtual_time && !options.shared;
    only_thread = one_thread ? &this_thread : nullptr;
    files_keep_modules = options.files_keep_modules;
    the_kernel = this;
    for (const Service* service : services)
        service->begin();
    impl_->executor = options.clock == Clock::virtual_time
                          ? make_virtual_executor(options.first_jiffy)
                          : make_real_executor(options.first_jiffy);
    the_executor = impl_->executor.get();
}

Kernel::~Kernel() {
    must_sleep("~Kernel");
    impl_->executor->stop();
    for (const Service* service : services)
        service->end();
    current_epoch = 0;
    only_thread = nullptr;
    the_executor = nullptr;
    the_kernel = nullptr;
}

Kernel& Kernel::current() {
    enter("Kernel::current");
    return *the_kernel;
}

Clock Kernel::clock() const {
    return impl_->clock;
}

unsigned long Kernel::jiffies() const {
    enter("Kernel::jiffies");
    return impl_->executor->now();
}

void Kernel::advance(unsigned long ticks) {
    enter("advance");
    must_sleep("advance");
    impl_->executor->advance(ticks);
}

void Kernel::settle() {
    enter("settle");
    must_sleep("settle");
    impl_->executor->settle();
}

unsigned long Kernel::next_due() const {
    enter("next_due");
    return impl_->executor->next_due();
}

void Kernel::schedule(Context context, unsigned long ticks, std::function<void()> work,
                      unsigned lane) {
    enter("Kernel::schedule");
    if (!work)
        die("Kernel::schedule: there is nothing to run");
    impl_->executor->schedule(context, ticks, std::move(work), lane);
}

std::vector<std::string> Kernel::remains() const {
    std::vector<std::string> lines;
    for (const Service* service : services)
        service->remains(lines);
    std::vector<std::shared_ptr<Report>> reports;
    {
        const std::lock_guard guard(impl_->watchers_mutex);
        for (const auto& watcher : impl_->watchers)
            if (auto report = watcher.lock())
                reports.push_back(std::move(report));
    }
    for (const auto& report : reports)
        (*report)(lines);
    return lines;
}

std::shared_ptr<void> Kernel::watch(Report report) {
    auto token = std::make_shared<Report>(std::move(report));
    const std::lock_guard guard(impl_->watchers_mutex);
    std::erase_if(impl_->watchers, [](const auto& watcher) { return watcher.expired(); });
    impl_->watchers.push_back(token);
    return token;
}

}  // namespace host

unsigned long jiffies() {
    host::enter("jiffies");
    return host::executor().now();
}

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "host/faults.h"

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>

#include "host/internal.h"

namespace host {
namespace {

std::atomic<unsigned long> failed_so_far{0};

}  // namespace

/* Counting is one relaxed atomic; only while a fault of the service is set is there more to do. */
class FaultPoint {
  public:
    bool now() {
        const unsigned long number = calls_.fetch_add(1, std::memory_order_relaxed) + 1;
        if (!pending_.load(std::memory_order_relaxed) || !take(number))
            return false;
        tell_watcher();
        return true;
    }
    void fail(unsigned long n) {
        const std::lock_guard guard(mutex_);
        failing_.insert(calls() + n);
        pending_ = true;
    }
    void clear() {
        const std::lock_guard guard(mutex_);
        failing_.clear();
        pending_ = false;
        calls_ = 0;
    }
    unsigned long failed() const { return failed_.load(std::memory_order_relaxed); }
    unsigned long calls() const { return calls_.load(std::memory_order_relaxed); }

  private:
    bool take(unsigned long number) {
        const std::lock_guard guard(mutex_);
        const bool found = failing_.erase(number) > 0;
        pending_ = !failing_.empty();
        failed_so_far += found;
        failed_ += found;
        return found;
    }
    void tell_watcher() const;

    std::atomic<unsigned long> calls_{0};
    std::atomic<unsigned long> failed_{0};
    std::atomic<bool> pending_{false};
    std::mutex mutex_;
    std::set<unsigned long> failing_;  // numbers of the calls that are to fail
};

namespace {

constexpr const char* service_names[] = {
    "kmalloc",
    "create_proc_entry",
    "proc_mkdir",
    "copy_from_user",
    "rep_open_key",
    "rep_get_value",
    "rep_notify_key_change",
    "gx_hca_open",
    "gx_hca_query",
    "gx_port_query",
    "gx_get_port_gid_tbl",
    "gx_get_port_partition_tbl",
    "gx_set_sleepable_async_event_cb",
    "port_num2base_gid",
    "port_num2base_lid",
    "base_gid2port_num",
    "pkey_index2pkey",
    "gsi_register_class",
    "gsi_deregister_class",
    "gsi_dtgrm_pool_create_named",
    "gsi_dtgrm_pool_get",
    "gsi_dtgrm_alloc_rmpp_buf",
    "gsi_post_send_dtgrm",
    "get_if_info",
    "send_arp",
};
constexpr std::size_t service_count = std::size(service_names);

std::array<FaultPoint, service_count> points;

std::mutex watcher_mutex;  // guards the watcher
FaultWatcher the_watcher;

FaultPoint* find(const char* service) {
    for (std::size_t i = 0; i < service_count; ++i)
        if (std::strcmp(service_names[i], service) == 0)
            return &points[i];
    return nullptr;
}

FaultPoint& known(const std::string& service) {
    if (FaultPoint* point = find(service.c_str()))
        return *point;
    throw std::invalid_argument("no service can fail under the name " + service);
}

}  // namespace

void FaultPoint::tell_watcher() const {
    FaultWatcher watcher;
    {
        const std::lock_guard guard(watcher_mutex);
        watcher = the_watcher;
    }
    if (watcher)
        watcher(service_names[this - points.data()]);
}

const Service fault_service = {clear_faults,
                               [] {
                                   clear_faults();
                                   watch_faults({});
                               },
                               [](std::vector<std::string>&) {}};

void watch_faults(FaultWatcher watcher) {
    const std::lock_guard guard(watcher_mutex);
    the_watcher = std::move(watcher);
}

FaultPoint& fault_point(const char* service) {
    FaultPoint* point = find(service);
    if (!point)
        die("fault_point: no service has the name %s", service);
    return *point;
}

bool fails_now(FaultPoint& point) {
    return point.now();
}

bool fails_now(const char* service) {
    return fault_point(service).now();
}

void fail_nth(const std::string& service, unsigned long n) {
    enter("fail_nth");
    known(service).fail(n);
}

void clear_faults() {
    for (FaultPoint& point : points)
        point.clear();
}

unsigned long calls_of(const std::string& service) {
    return known(service).calls();
}

unsigned long failed_calls() {
    return failed_so_far.load(std::memory_order_relaxed);
}

unsigned long failed_calls_of(const std::string& service) {
    return known(service).failed();
}

const std::vector<std::string>& services_that_fail() {
    static const std::vector<std::string> names(std::begin(service_names), std::end(service_names));
    return names;
}

}  // namespace host

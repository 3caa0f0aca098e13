// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The configuration repository, and the logger service whose levels follow it.
#include "platform/repository.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "host/console.h"
#include "host/faults.h"
#include "host/internal.h"
#include "host/services.h"
#include "platform/logger.h"

int logger_trace_level = 0;

/* An open key is a path. That there is a key behind it is told when a value is asked for. */
struct rep_key {
    std::string path;
};

struct rep_notification {
    std::string path;
    rep_change_cb_t* callback;
    void* context;
    unsigned running = 0;  // calls of the callback
    bool ended = false;
};

namespace host {
namespace {

constexpr int failed = -1;
constexpr int not_found = -2;

rep_key root;
std::mutex mutex;  // guards all below, and the notifications; never held in a callback
std::condition_variable callback_returned;
std::map<std::string, std::map<std::string, std::uint64_t>> keys;
std::vector<std::unique_ptr<rep_key>> open_keys;
std::vector<std::shared_ptr<rep_notification>> notifications;

bool fails(const char* call) {
    enter(call);
    must_sleep(call);
    return fails_now(call);
}

auto find_open(rep_key_t key) {
    return std::ranges::find(open_keys, key, [](const auto& one) { return one.get(); });
}

void check_open(rep_key_t key, const char* call) {
    if (key != &root && find_open(key) == open_keys.end())
        die("%s: the key at %p is not open", call, static_cast<const void*>(key));
}

void forget_all() {
    const std::lock_guard guard(mutex);
    keys.clear();
    open_keys.clear();
    notifications.clear();
    __atomic_store_n(&logger_trace_level, 0, __ATOMIC_RELAXED);
}

void report_registrations(std::vector<std::string>& lines) {
    const std::lock_guard guard(mutex);
    for (const auto& notification : notifications)
        lines.push_back("repository: changes of " + notification->path + " are asked for");
    for (const auto& key : open_keys)
        lines.push_back("repository: the key " + key->path + " is open");
}

std::vector<std::shared_ptr<rep_notification>> begin_callbacks(const std::string& path) {
    std::vector<std::shared_ptr<rep_notification>> result;
    for (const auto& one : notifications) {
        if (one->path == path) {
            ++one->running;
            result.push_back(one);
        }
    }
    return result;
}

void run_callback(rep_notification& notification, std::uint64_t value) {
    rep_key key{notification.path};
    const void* outer = std::exchange(this_thread.notification, &notification);
    {
        const ContextScope scope(Context::process);
        std::unique_lock lock(mutex);
        if (!notification.ended) {
            lock.unlock();
            notification.callback(&key, value, notification.context);
        }
    }
    must_return_lock_free("the callback", reinterpret_cast<const void*>(notification.callback));
    this_thread.notification = outer;
    const std::lock_guard guard(mutex);
    --notification.running;
    callback_returned.notify_all();
}

}  // namespace

const Service repository_service = {forget_all, forget_all, report_registrations};

void set_repository_value(const std::string& path, const std::string& name, std::uint64_t value) {
    enter("set_repository_value");
    must_sleep("set_repository_value");
    std::vector<std::shared_ptr<rep_notification>> to_call;
    {
        const std::lock_guard guard(mutex);
        keys[path][name] = value;
        to_call = begin_callbacks(path);
    }
    for (const auto& notification : to_call)
        run_callback(*notification, value);
}

void remove_repository_key(const std::string& path) {
    enter("remove_repository_key");
    const std::lock_guard guard(mutex);
    keys.erase(path);
}

void set_logger_level(int level) {
    enter("set_logger_level");
    __atomic_store_n(&logger_trace_level, level, __ATOMIC_RELAXED);
}

}  // namespace host

using namespace host;

rep_key_t rep_get_root() {
    enter("rep_get_root");
    must_sleep("rep_get_root");
    return &root;
}

int rep_open_key(rep_key_t parent, const char* path, u32, rep_key_t* key) {
    if (fails("rep_open_key"))
        return failed;
    const std::lock_guard guard(mutex);
    check_open(parent, "rep_open_key");
    const std::string whole = parent->path + path;
    if (!keys.contains(whole))
        return not_found;
    open_keys.push_back(std::make_unique<rep_key>(rep_key{whole}));
    *key = open_keys.back().get();
    return 0;
}

int rep_get_value(rep_key_t key, const char* name, u32, void* value, u32* size) {
    if (fails("rep_get_value"))
        return failed;
    const std::lock_guard guard(mutex);
    check_open(key, "rep_get_value");
    const auto values = keys.find(key->path);
    if (values == keys.end() || !values->second.contains(name))
        return not_found;
    const u64 found = values->second.at(name);
    if (*size != sizeof found)
        return failed;
    std::memcpy(value, &found, sizeof found);
    return 0;
}

int rep_notify_key_change(rep_key_t key, u32, u32, rep_change_cb_t* callback, void* context,
                          rep_notify_t* handle) {
    if (fails("rep_notify_key_change"))
        return failed;
    const std::lock_guard guard(mutex);
    check_open(key, "rep_notify_key_change");
    notifications.push_back(
        std::make_shared<rep_notification>(rep_notification{key->path, callback, context}));
    *handle = notifications.back().get();
    return 0;
}

void rep_close_key(rep_key_t key) {
    enter("rep_close_key");
    must_sleep("rep_close_key");
    const std::lock_guard guard(mutex);
    check_open(key, "rep_close_key");
    if (key == &root)
        die("rep_close_key: the root is not closed");
    open_keys.erase(find_open(key));
}

void rep_notify_del(rep_notify_t handle) {
    enter("rep_notify_del");
    must_sleep("rep_notify_del");
    if (!handle)
        return;
    if (this_thread.notification == handle)
        die("rep_notify_del: called from the callback that it would wait for");
    std::unique_lock lock(mutex);
    const auto found =
        std::ranges::find(notifications, handle, [](const auto& one) { return one.get(); });
    if (found == notifications.end())
        die("rep_notify_del: there is no registration at %p", static_cast<const void*>(handle));
    const std::shared_ptr<rep_notification> notification = std::move(*found);
    notifications.erase(found);
    notification->ended = true;
    callback_returned.wait(lock, [&] { return notification->running == 0; });
}

void trace_lvl_change_cb(rep_key_t, u64 value, void* context) {
    __atomic_store_n(static_cast<int*>(context), static_cast<int>(value), __ATOMIC_RELAXED);
}

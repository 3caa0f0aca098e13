// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The attached IPoIB driver: who it is, and who is inside its functions.
//
// Requests and answers call the driver from timers, receive paths and clients, so a driver cannot
// know by itself when the last of them has left. Every visit is therefore counted with the
// attachment, and the end of the attachment waits for the count to become 0.
#include "platform/atomic.h"
#include "platform/bug.h"
#include "platform/semaphore.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

/* Held while a driver is attached or detached: as long as the visits of one are waited for there is
 * no next one, so the count is always of the same driver. It also holds those who may not wait to
 * their rule when there is nothing to wait for. */
constinit semaphore driver_change = {};

/* Visits to the driver that have not ended. */
constinit u32 driver_visits TA_GUARDED(driver_lock) = 0;

void set_driver(get_if_info_fn_t get_if_info_fn, send_arp_data_fn_t send_arp_data_fn, void* context)
    TA_REQ(driver_lock) {
    KASSERT(spin_is_held(&driver_lock));
    write_once(send_arp_data_fn_context, context);
    write_once(local_send_arp_data_fn, send_arp_data_fn);
    write_once(local_get_if_info_fn, get_if_info_fn);
}

/* False when there is a driver already. */
bool take_driver(get_if_info_fn_t get_if_info_fn, send_arp_data_fn_t send_arp_data_fn,
                 void* context) TA_EXCL(driver_lock) {
    const spin_guard guard(driver_lock);
    if (local_send_arp_data_fn || local_get_if_info_fn)
        return false;
    set_driver(get_if_info_fn, send_arp_data_fn, context);
    return true;
}

bool driver_is_visited() TA_EXCL(driver_lock) {
    const spin_guard guard(driver_lock);
    return driver_visits != 0;
}

}  // namespace

constinit spinlock_t driver_lock = {};
constinit send_arp_data_fn_t local_send_arp_data_fn = nullptr;
constinit get_if_info_fn_t local_get_if_info_fn = nullptr;
constinit void* send_arp_data_fn_context = nullptr;

driver_call::driver_call() {
    const spin_guard guard(driver_lock);
    send_arp_data = local_send_arp_data_fn;
    get_if_info = local_get_if_info_fn;
    context = send_arp_data_fn_context;
    driver_visits++;
}

driver_call::~driver_call() {
    const spin_guard guard(driver_lock);
    KASSERT(driver_visits > 0);
    driver_visits--;
}

void tarv_driver_start() {
    spin_lock_init(&driver_lock, "driver_lock");
    sema_init(&driver_change, 1, "driver_change");
    const spin_guard guard(driver_lock);
    set_driver(nullptr, nullptr, nullptr);
    driver_visits = 0;
}

tarv_stat_t tarv_attach(get_if_info_fn_t get_if_info_fn, send_arp_data_fn_t send_arp_data_fn,
                        void* context, void** handle) {
    const semaphore_guard one_at_a_time(driver_change);
    if (!take_driver(get_if_info_fn, send_arp_data_fn, context)) {
        TARV_LOG(TARV_ERROR, "send_arp_data_fn OR get_if_info_fn allready registered.\n");
        return tarv_stat_error;
    }
    *handle = TARV_ATTACH_HANDLE;
    return tarv_stat_ok;
}

/* Who finds the driver gone does not come in any more, and who is inside does not wait for
 * anything: the count becomes 0 soon. */
tarv_stat_t tarv_detach(void* handle) {
    if (handle != TARV_ATTACH_HANDLE) {
        TARV_LOG(TARV_ERROR, "Invalid handle.\n");
        return tarv_stat_error;
    }
    const semaphore_guard one_at_a_time(driver_change);
    {
        const spin_guard guard(driver_lock);
        set_driver(nullptr, nullptr, nullptr);
    }
    while (driver_is_visited())
        schedule();
    return tarv_stat_ok;
}

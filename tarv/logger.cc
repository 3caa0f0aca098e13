// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/logger.h"

namespace {

constexpr char key_path[] = "quorvane/modules/tarv/";
constexpr char value_name[] = "debug-level";

/* Takes the level over and has it followed from now on; false, and nothing is open, when there is
 * none. The level is stored before changes are asked for: a change is newer than what was read. */
bool bind_to_key() {
    rep_key_t key = nullptr;
    if (rep_open_key(rep_get_root(), key_path, 0, &key) != 0) {
        printk("QD_LOGGER: rep_open_key failed for, %s -- disabling logging\n", key_path);
        return false;
    }
    u64 level = 0;
    u32 size = sizeof level;
    if (rep_get_value(key, value_name, 0, &level, &size) != 0) {
        printk("QD_LOGGER: rep_get_value failed for, %s -- disabling logging\n", key_path);
        rep_close_key(key);
        return false;
    }
    printk("LOGGER: Added key %s, trace level %d\n", key_path, static_cast<int>(level));
    write_once(TARV_trace_level, static_cast<int>(level));
    rep_notify_key_change(key, 0, 2, trace_lvl_change_cb, &TARV_trace_level, &TARV_log_rep_h);
    rep_close_key(key);
    return true;
}

}  // namespace

const char* const qdlog_levels[6] = {"PANIC  ", "ERROR  ", "WARNING",
                                     "INFO   ", "DEBUG  ", "FUNC   "};

constinit int TARV_trace_level = 0;
constinit rep_notify_t TARV_log_rep_h = nullptr;

void tarv_log_bind() {
    TARV_log_rep_h = nullptr;
    if (!bind_to_key())
        write_once(TARV_trace_level, 0);
}

void tarv_log_unbind() {
    rep_notify_del(TARV_log_rep_h);
    TARV_log_rep_h = nullptr;
}

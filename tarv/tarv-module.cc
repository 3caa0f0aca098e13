// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/tarv-module.h"

#include "platform/printk.h"
#include "platform/string.h"
#include "tarv/logger.h"
#include "tarv/qversion.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"

namespace {

constexpr char tarv_unit[] = "tarv_module";

constexpr char module_name[] = "tarv";
constexpr char control_path[] = "quorvane/tarv/control";

constexpr char identification[] = "$Id: tarv-module.cc,v 1.37 2005/05/25 08:15:38 tarv Exp $";

/* What the banner leaves off the identification: its keyword, and the committer and state at its
 * end. */
constexpr size_t keyword_length = 5;
constexpr size_t tail_length = 11;

/* Cut in place when the banner is printed. */
constinit char module_id[sizeof identification] = {};

void print_banner() {
    __builtin_memcpy(module_id, identification, sizeof identification);
    module_id[sizeof identification - 1 - tail_length] = '\0';
    printk("%s\n", module_id + keyword_length);
}

bool start_engine() {
    return tarv_init() == tarv_stat_ok;
}

/* Without a version file the module serves all the same. */
bool make_version_record() {
    module_version_init(module_name, "1.21",
                        "$Name: IB_CODE_DRAVONIK_V4_355_BR_V355_01_20060112 $");
    return true;
}

void remove_version_record() {
    module_version_exit(module_name);
}

bool make_control_file() {
    tarv_proc_start();
    tarv_proc_entry = create_proc_entry(control_path, 0644, nullptr);
    if (!tarv_proc_entry)
        return false;
    tarv_proc_entry->data = nullptr;
    tarv_proc_entry->read_proc = tarv_proc_read;
    tarv_proc_entry->write_proc = tarv_proc_write;
    tarv_proc_entry->owner = this_module();
    return true;
}

void remove_control_file() {
    remove_proc_entry(control_path, nullptr);
    tarv_proc_entry = nullptr;
    tarv_proc_stop();
}

/* Where there is no level to be bound to, the module logs nothing. */
bool bind_trace_level() {
    tarv_log_bind();
    return true;
}

/* The steps of a load, in their order. What was done is undone in the reverse order, by a load that
 * fails and by the unload. */
struct load_step_t {
    bool (*load)();
    void (*undo)();
    const char* failure;  // in the log
    int result;           // what the load returns then
};
constexpr load_step_t load_steps[] = {
    {start_engine, tarv_destroy, "Error initializing tarv module.\n", -1},
    {make_version_record, remove_version_record, nullptr, 0},
    {make_control_file, remove_control_file, "Error creating /proc entry.\n", -12},
    {bind_trace_level, tarv_log_unbind, nullptr, 0},
};
constexpr u32 load_step_count = sizeof load_steps / sizeof load_steps[0];

void undo_load(u32 done) {
    while (done-- > 0)
        load_steps[done].undo();
}

const module_param_t params[] = {
    {"arp_cache_timeout_sec", module_param_ulong, &arp_cache_timeout_sec, 0},
    {"tarv_is_mode_redundant", module_param_byte, &tarv_is_mode_redundant, 0},
};

const module_export_t exports[] = {
    {"tarv_get_ib_data", reinterpret_cast<const void*>(tarv_get_ib_data)},
    {"TARV_log_rep_h", &TARV_log_rep_h},
    {"TARV_trace_level", &TARV_trace_level},
};

}  // namespace

constinit proc_dir_entry* tarv_proc_entry = nullptr;
constinit u8 tarv_is_mode_redundant = 1;

const module_info_t tarv_module = {
    .name = module_name,
    .description = "IB_ARP repository module.",
    .depends = "",
    .vermagic = "2.6.9-34.ELsmp SMP gcc-3.4",
    .init = tarv_module_init,
    .exit = tarv_module_exit,
    .params = params,
    .param_count = sizeof params / sizeof params[0],
    .exports = exports,
    .export_count = sizeof exports / sizeof exports[0],
};

int tarv_module_init() {
    print_banner();
    write_once(TARV_trace_level, 0);
    for (u32 done = 0; done < load_step_count; done++) {
        if (load_steps[done].load())
            continue;
        TARV_LOG(TARV_ERROR, "%s", load_steps[done].failure);
        undo_load(done);
        return load_steps[done].result;
    }
    return 0;
}

void tarv_module_exit() {
    undo_load(load_step_count);
}

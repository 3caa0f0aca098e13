// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the kernel's module loader sees of a module, and the names under which modules find each
// other's functions at run time.
#pragma once

#include "platform/types.h"

struct module;  // a loaded module, as the kernel knows it

/* The module that this code belongs to, the owner of what it registers. Context: any. */
struct module* this_module() PLATFORM_LINK(this_module);

/* Offers `userdata` (here always a function's address) to other modules under `name`, a string that
 * outlives the registration. A name that is taken is a fault of the caller. Context: process. */
void inter_module_register(const char* name, struct module* owner, const void* userdata)
    PLATFORM_LINK(inter_module_register);

/* Withdraws a name. Context: process. */
void inter_module_unregister(const char* name) PLATFORM_LINK(inter_module_unregister);

/* A parameter that can be given when the module is loaded. */
enum module_param_type_t : u8 {
    module_param_byte,   // a u8
    module_param_ulong,  // an unsigned long
};
struct module_param_t {
    const char* name;
    module_param_type_t type;
    void* variable;
    u16 permissions;  // of its file under /sys; 0: given at load only, and not shown
};

/* A symbol that other modules may link against. */
struct module_export_t {
    const char* name;
    const void* address;
};

/* Everything the loader needs; a module defines one constant of this type. */
struct module_info_t {
    const char* name;
    const char* description;
    const char* depends;
    const char* vermagic;
    int (*init)();   // 0, or a negative error number and nothing left behind; process context
    void (*exit)();  // process context
    const module_param_t* params;
    u32 param_count;
    const module_export_t* exports;
    u32 export_count;
};

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The module's log lines.
//
// A source file names its unit once, `constexpr char tarv_unit[] = "tarv_sa";`, and logs with
// TARV_LOG(level, format, ...). The line is printed when both the host-wide and the module's own
// trace level are at least `level`; its arguments are checked by the compiler always, and evaluated
// only then. Console output that is no log line (banners, dumps) goes to printk directly. Context:
// any.
#pragma once

#include "platform/atomic.h"
#include "platform/logger.h"
#include "platform/printk.h"
#include "platform/repository.h"

enum tarv_log_level_t : int {
    TARV_PANIC = 0,
    TARV_ERROR = 1,
    TARV_WARNING = 2,
    TARV_INFO = 3,
    TARV_DEBUG = 4,
    TARV_FUNC = 5,
};

/* The level names, seven characters each. */
extern const char* const qdlog_levels[6];

/* The module's trace level. 0 until the load binds it to its key in the repository; the logger
 * service changes it at any time. Exported. */
extern int TARV_trace_level;

/* The repository's handle for changes of that key. Exported. */
extern rep_notify_t TARV_log_rep_h;

inline bool tarv_log_enabled(tarv_log_level_t level) {
    return read_once(logger_trace_level) >= level && read_once(TARV_trace_level) >= level;
}

/* A line of the function `name`, for helpers that do a part of its work: to whoever reads the log
 * it is one function. A helper of one function has its name from a constant of the file; a helper
 * of several is told by its caller, with __func__. */
#define TARV_LOG_FROM(name, level, format, ...)                                            \
    do {                                                                                   \
        if (tarv_log_enabled(level))                                                       \
            printk("<6>%s : TARV : %s:(%s):" format, qdlog_levels[level], name, tarv_unit, \
                   ##__VA_ARGS__);                                                         \
    } while (0)

#define TARV_LOG(level, format, ...) TARV_LOG_FROM(__func__, level, format, ##__VA_ARGS__)

/* The name of a function of the module, which has to exist. */
#define TARV_NAME_OF(function) (static_cast<void>(sizeof(&(function))), #function)

/* The four bytes of an IPv4 address in memory order, as arguments for a format. */
#define TARV_IP_BYTES(ip) ((ip)&0xFF), ((ip) >> 8 & 0xFF), ((ip) >> 16 & 0xFF), ((ip) >> 24 & 0xFF)

/* Binds the trace level to "debug-level" under "quorvane/modules/tarv/" in the repository; it is 0
 * where that cannot be read. Ends the binding. Process context, at load and unload. */
void tarv_log_bind();
void tarv_log_unbind();

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/logger.h"

const char* const qdlog_levels[6] = {"PANIC  ", "ERROR  ", "WARNING",
                                     "INFO   ", "DEBUG  ", "FUNC   "};

constinit int TARV_trace_level = 0;
constinit rep_notify_t TARV_log_rep_h = nullptr;

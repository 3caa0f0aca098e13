// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Assertions. What must hold whatever anybody outside does is asserted where it is relied upon, in
// every host and every build: a kernel that goes on with a broken list does more harm than one that
// stops. What can go wrong from outside is handled and is no assertion's business.
#pragma once

#include "platform/types.h"

/* Reports that `expression` does not hold, with the file's name and line, and stops: the kernel, or
 * at least the thread, which never comes back from here. The strings are literals. Context: any,
 * with locks held. */
[[noreturn]] void bug(const char* expression, const char* file, u32 line) PLATFORM_LINK(bug);

/* The condition is always evaluated, so it is cheap: a load or two and a comparison. The file's
 * name comes without its folders, which are a matter of the machine that compiled it. */
#define KASSERT(condition)                                                    \
    (__builtin_expect(static_cast<bool>(condition), 1) ? static_cast<void>(0) \
                                                       : bug(#condition, __FILE_NAME__, __LINE__))

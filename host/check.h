// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The rules of the kernel, enforced: who runs in which context, who holds which lock.
//
// A broken rule ends the program at the line that broke it: "host: RULE: ..." with the names of the
// call and of the locks on standard error, then abort().
#pragma once

#include <string>

#include "host/kernel.h"

namespace host {

/// Ends the program with that message.
[[noreturn]] void die(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The context of the calling thread; process where nothing else was said.
Context current_context();

/// The calling thread is in `context` for the scope. Scopes nest: a receive may interrupt a
/// process.
class ContextScope {
  public:
    explicit ContextScope(Context context);
    ~ContextScope();
    ContextScope(const ContextScope&) = delete;
    ContextScope& operator=(const ContextScope&) = delete;

  private:
    Context before_;
};

/// Dies unless the calling thread may sleep: process or event context, and no spin lock held.
void must_sleep(const char* call);

/// Dies when the calling thread holds a spin lock. For everything that the module calls out to, or
/// that calls into it: adapter calls, driver callbacks, reply callbacks, completions, timers.
void must_hold_no_lock(const char* call);

/// The module calls a function of its driver: no spin lock may be held, and for the scope nothing
/// may sleep, whatever context the module was called in. So a driver that detaches itself from
/// inside its own functions, and would wait for its own return, dies there.
class DriverCall {
  public:
    explicit DriverCall(const char* function);
    ~DriverCall();
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;

  private:
    const char* const outer_;
};

/// Names of the spin locks that the calling thread holds, blank separated.
std::string held_locks();

}  // namespace host

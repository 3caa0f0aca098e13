// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Faults are inputs: every call of the waist that can fail can be told to fail at its n-th call.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace host {

/// The `n`-th call of `service` from now on (1: the next) fails, once. `service` is the waist's
/// name: "kmalloc", "gx_hca_open", "gsi_post_send_dtgrm", ... An unknown name throws
/// std::invalid_argument.
void fail_nth(const std::string& service, unsigned long n);

/// Takes back all that fail_nth set, and counts calls from 0 again.
void clear_faults();

/// Called with the service's name whenever a call is made to fail, in the context of that call and
/// with whatever locks it holds: it must not call the kernel. Forgotten at the end of the kernel's
/// life; an empty function takes it away.
using FaultWatcher = std::function<void(const char* service)>;
void watch_faults(FaultWatcher watcher);

/// How often `service` was called since the kernel began or clear_faults().
unsigned long calls_of(const std::string& service);

/// How many calls have failed since the process began because they were told to.
unsigned long failed_calls();
unsigned long failed_calls_of(const std::string& service);

/// The services that can fail, in the order in which they are listed to a person.
const std::vector<std::string>& services_that_fail();

/// For the implementations: counts a call of `service`; true when this one is to fail.
bool fails_now(const char* service);

/// The same for calls that are made often: looked up once and kept, it costs one relaxed atomic.
class FaultPoint;
FaultPoint& fault_point(const char* service);
bool fails_now(FaultPoint& point);

}  // namespace host

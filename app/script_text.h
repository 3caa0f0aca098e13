// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a script prints, as text.
#pragma once

#include <optional>
#include <string>

#include "tarv/tarv.h"

namespace app {

/// ok, pending, timeout, error, not_found; another value as its number.
std::string status_name(tarv_stat_t status);
/// "-253 pending".
std::string numbered_status(tarv_stat_t status);
std::optional<tarv_stat_t> parse_status(const std::string& name);
/// All of them, with the numbers that stand for them in the module's own lines.
std::string list_statuses();

/// A record in one line, and an indented line for each path that its mask declares valid. No line
/// end at the end. The path pointers are not followed.
std::string format_record(const tarv_arp_data_t& record);

/// "0x" and the 32 digits of a GID, most significant first.
std::string format_digits(const gx_gid_t& gid);

/// Addresses of memory differ from run to run and from build to build: every one that printk's %p
/// has printed becomes sixteen 'x'. Null pointers and numbers that are no address stay.
std::string hide_addresses(std::string line);

}  // namespace app

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Names that the world's sources share.
#pragma once

namespace soak {

inline constexpr const char* control_file = "quorvane/tarv/control";
inline constexpr const char* level_key = "quorvane/modules/tarv/";
inline constexpr const char* level_name = "debug-level";

/* Windows that are looked at by what they are. */
inline constexpr const char event_window[] = "adapter event";
inline constexpr const char ageing_window[] = "ageing";

}  // namespace soak

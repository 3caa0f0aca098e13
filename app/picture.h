// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A fabric as a picture.
#pragma once

#include <string>

#include "app/options.h"

namespace app {

/// The fabric in the language of graphviz: switches above what is linked to them, one line for all
/// links between two, red where one is slower than others between such levels. Of a large fabric
/// the hosts that are linked to the same switches are one box; this host always has its own.
std::string to_dot(const Site& site);

/// The same drawn, as SVG: a row for each level, the hosts below.
std::string to_svg(const Site& site);

}  // namespace app

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The fabric that the program runs on when it is given none: the files of fabric/data, built in.
#pragma once

namespace app {

struct BuiltinSite {
    const char* fabric_name;
    const char* fabric_text;
    const char* hosts_name;
    const char* hosts_text;
};
extern const BuiltinSite builtin_site;

}  // namespace app

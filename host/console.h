// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The kernel's console: printk's ring of lines, and who reads them.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace host {

/// One line of the kernel log. `text` is without priority and line end.
struct LogLine {
    int priority;
    unsigned long jiffies;
    std::string text;
};

/// Called with every finished line, in order, under the console's own lock: it must not call
/// printk.
using ConsoleSink = std::function<void(const LogLine&)>;

/// Replaces the reader of the console; an empty function takes it away.
void set_console(ConsoleSink sink);

/// The ring's lines, oldest first (the last 65536), and emptying it. A line that has no end yet is
/// counted among them.
std::vector<LogLine> console_lines();
void clear_console();

/// Sets the host-wide trace level of the logger service, 0 to 5.
void set_logger_level(int level);

/// The kernel's own formatting, for those who compare texts: as printk does it.
std::string kformat(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace host

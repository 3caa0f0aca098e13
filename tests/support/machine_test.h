// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ground that every test of the module stands on: a machine of its own in virtual time, the
// module not loaded, its switches as a fresh load leaves them, and the console in its hands.
//
// The test ends with a look at what is left: whatever the module did not give back fails it. What a
// test loads is unloaded then; parts of the module that it started by themselves it has to stop.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/console.h"
#include "host/faults.h"
#include "host/kernel.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tests/support/machine.h"

namespace support {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

/// A line of the module's log as "D tarv_api/tarv_get_ib_data: message", its level's letter, unit
/// and function in front; any other line as it is.
inline std::string brief(const std::string& line) {
    const std::string tag = " : TARV : ";
    const std::size_t function = line.find(tag), unit = line.find(":("), message = line.find("):");
    for (const char* level : qdlog_levels)
        if (function == 7 && line.rfind(level, 0) == 0 && unit < message && message != line.npos)
            return line.substr(0, 1) + " " + line.substr(unit + 2, message - unit - 2) + "/" +
                   line.substr(7 + tag.size(), unit - 7 - tag.size()) + ": " +
                   line.substr(message + 2);
    return line;
}

/// The line with every pointer, 16 small hexadecimal digits, as "P" or "null".
inline std::string without_pointers(const std::string& line) {
    std::string result;
    for (std::size_t at = 0; at < line.size();) {
        const std::size_t end =
            std::min(line.find_first_not_of("0123456789abcdefABCDEF", at), line.size());
        const std::string run = line.substr(at, end - at);
        if (run.size() != 16 || run.find_first_of("ABCDEF") != std::string::npos)
            result += run;
        else
            result += run.find_first_not_of('0') == std::string::npos ? "null" : "P";
        result += line.substr(end, 1);
        at = end + 1;
    }
    return result;
}

class MachineTest : public testing::Test {
  public:
    explicit MachineTest(int our_ports = 2) : machine(our_ports) {
        trace(TARV_PANIC);
        tarv_driver_start();
        write_once(halted, 0);
        write_once(enabled, 0);
        write_once(sa_queries_enabled, 0);
        write_once(statics_inv_enabled, 1);
        write_once(get_data_retry, 3);
        write_once(tarv_media_reset, 1);
        arp_cache_timeout_sec = 300;
    }
    ~MachineTest() override { write_once(TARV_trace_level, 0); }

    void TearDown() override {
        host::clear_faults();
        machine.stop();
        write_once(local_send_arp_data_fn, nullptr);
        write_once(local_get_if_info_fn, nullptr);
        EXPECT_EQ(kernel.remains(), Lines{});
    }

    /// What the module logs from now on, with the rest of the host logging everything.
    static void trace(tarv_log_level_t level) {
        host::set_logger_level(TARV_FUNC);
        write_once(TARV_trace_level, level);
    }

    /// The console's lines since the last call, brief and without their priorities. A line of the
    /// module's log has priority 6, whatever its level.
    static Lines console() {
        Lines texts;
        for (const host::LogLine& line : host::console_lines()) {
            const bool is_log_line = line.text.find(" : TARV : ") != std::string::npos;
            EXPECT_TRUE(!is_log_line || line.priority == 6) << line.text;
            texts.push_back(brief(line.text));
        }
        host::clear_console();
        return texts;
    }

    /// The same without pointers.
    static Lines masked() {
        Lines lines = console();
        std::ranges::transform(lines, lines.begin(), without_pointers);
        return lines;
    }

    /// console() or masked(), the lines of that unit without its name: "D tarv_init: message".
    static Lines told(const std::string& unit, Lines lines = console()) {
        for (std::string& line : lines)
            if (line.find(" " + unit + "/") == 1)
                line.erase(2, unit.size() + 1);
        return lines;
    }

    /// What one function logged, and nothing else: a level's letter, a blank, the message and a
    /// line end for each line.
    static std::string told_by(const std::string& function, const std::string& unit) {
        std::string text;
        for (const std::string& line : told(unit))
            if (line.find(" " + function + ": ") == 1)
                text += line.substr(0, 2) + line.substr(function.size() + 4) + "\n";
        return text;
    }

    SmallMachine machine;
    host::Kernel& kernel = machine.kernel();
    fabric::Fabric& fabric = machine.fabric();
};

/// Names a test of a parameter table by its row's `name`.
inline constexpr auto row_name = [](const auto& info) { return std::string(info.param.name); };

}  // namespace support

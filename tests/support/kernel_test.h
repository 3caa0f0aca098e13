// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ground that every test of the module stands on: a kernel of its own in virtual time, the
// module's switches as a fresh load leaves them, and the console in its hands.
//
// The test ends with a look at what is left: whatever the module did not give back fails it. So a
// test, or its TearDown before it calls this one, stops every part of the module that it started.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "host/console.h"
#include "host/kernel.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"

namespace support {

using Lines = std::vector<std::string>;

/// A time before the low half of the tick counter starts from 0 again, such that the request timers
/// run once more shortly before it does.
inline constexpr unsigned long before_wrap = (1ul << 32) - 1200;

/// How many random steps a test takes; fewer where each of them costs ten times as much.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int random_steps = 40'000;
#else
inline constexpr int random_steps = 400'000;
#endif

class KernelTest : public testing::Test {
  protected:
    explicit KernelTest(unsigned long first_jiffy = 1000)
        : kernel(host::Options{host::Clock::virtual_time, first_jiffy}) {
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
    ~KernelTest() override { write_once(TARV_trace_level, 0); }

    void TearDown() override {
        write_once(local_send_arp_data_fn, nullptr);
        write_once(local_get_if_info_fn, nullptr);
        EXPECT_EQ(kernel.remains(), Lines{});
    }

    /// What the module logs from now on, with the rest of the host logging everything.
    void trace(tarv_log_level_t level) {
        host::set_logger_level(TARV_FUNC);
        write_once(TARV_trace_level, level);
    }

    /// The console's lines since the last call, without their priorities. A line of the module's
    /// log has priority 6, whatever its level.
    Lines console() {
        Lines texts;
        for (const host::LogLine& line : host::console_lines()) {
            const bool is_log_line = line.text.find(" : TARV : ") != std::string::npos;
            EXPECT_TRUE(!is_log_line || line.priority == 6) << line.text;
            texts.push_back(line.text);
        }
        host::clear_console();
        return texts;
    }

    /// The same, with the lines of that unit shortened to their level's letter, function and
    /// message: "D tarv_hash_get_entry: IP: 0100000A found."
    Lines told(const std::string& unit) {
        Lines lines = console();
        for (std::string& line : lines)
            line = shortened(line, unit);
        return lines;
    }

    /// What one function of that unit logged, and nothing else: a level's letter, a blank, the
    /// message and a line end for each line.
    std::string told_by(const std::string& function, const std::string& unit) {
        std::string text;
        for (const std::string& line : told(unit))
            if (line.find(" " + function + ": ") == 1)
                text += line.substr(0, 2) + line.substr(function.size() + 4) + "\n";
        return text;
    }

    host::Kernel kernel;

  private:
    static std::string shortened(const std::string& line, const std::string& unit) {
        constexpr std::array levels = {"PANIC  ", "ERROR  ", "WARNING",
                                       "INFO   ", "DEBUG  ", "FUNC   "};
        const std::string between = " : TARV : ";
        const std::size_t function = 7 + between.size();
        const std::size_t end = line.find(":(" + unit + "):");
        if (end == std::string::npos || line.compare(7, between.size(), between) != 0 ||
            std::find(levels.begin(), levels.end(), line.substr(0, 7)) == levels.end())
            return line;
        return line.substr(0, 1) + " " + line.substr(function, end - function) + ": " +
               line.substr(end + unit.size() + 4);
    }
};

/// Names a test of a parameter table by its row's `name`.
inline constexpr auto row_name = [](const auto& info) { return std::string(info.param.name); };

}  // namespace support

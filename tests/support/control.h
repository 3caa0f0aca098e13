// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A loaded module on a host with a simulated adapter, seen by its administrator: commands in,
// console lines out.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "host/faults.h"
#include "host/services.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-module.h"
#include "tests/support/fabric_test.h"

namespace support {

inline constexpr char control_path[] = "quorvane/tarv/control";
inline constexpr char version_path[] = "quorvane/tarv/version";
inline constexpr char level_key[] = "quorvane/modules/tarv/";

/// Lines of the module's log, spelled out as an administrator finds them.
inline std::string error(const std::string& function, const std::string& message,
                         const std::string& unit = "tarv_api") {
    return "ERROR   : TARV : " + function + ":(" + unit + "):" + message;
}
inline std::string warning(const std::string& function, const std::string& message) {
    return "WARNING : TARV : " + function + ":(tarv_api):" + message;
}
inline std::string debug(const std::string& function, const std::string& message,
                         const std::string& unit = "tarv_api") {
    return "DEBUG   : TARV : " + function + ":(" + unit + "):" + message;
}
/// What the cache says when it was asked for an address and has it.
inline std::string found(const std::string& operation, const std::string& address) {
    return debug(operation, "IP: " + address + " found.", "tarv_arp_hash");
}

/// The line with every word that is a pointer, 16 small hexadecimal digits, as "P" or "null".
inline std::string mask_pointers(const std::string& line) {
    std::string result;
    for (std::size_t at = 0; at < line.size();) {
        std::size_t end = at;
        while (end < line.size() && std::isalnum(static_cast<unsigned char>(line[end])))
            end++;
        std::string word = line.substr(at, std::max<std::size_t>(end - at, 1));
        at += word.size();
        if (word.size() == 16 && word.find_first_not_of("0123456789abcdef") == std::string::npos)
            word = word.find_first_not_of('0') == std::string::npos ? "null" : "P";
        result += word;
    }
    return result;
}

inline Lines operator+(Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

/// A host with an adapter; the module is not loaded yet. What a test loads, its end unloads.
class FrameTest : public FabricTest {
  protected:
    FrameTest() { host::set_logger_level(TARV_FUNC); }

    void TearDown() override {
        host::clear_faults();
        if (loaded)
            unload();
        FabricTest::TearDown();
    }

    int load(const std::vector<std::string>& parameters = {}) {
        const int result = host::load_module(tarv_module, parameters);
        loaded = result == 0;
        return result;
    }

    void unload() {
        if (fabric.ipoib().attached())
            fabric.ipoib().detach();
        host::unload_module(tarv_module);
        loaded = false;
    }

    static void set_level(std::uint64_t level) {
        host::set_repository_value(level_key, "debug-level", level);
    }

    /// One write to the control file.
    static void command(const std::string& text) {
        EXPECT_EQ(host::ProcFile(control_path).write(text), static_cast<long>(text.size()));
    }

    /// The console with every pointer as "P", or "null".
    Lines masked_console() {
        Lines lines = console();
        for (std::string& line : lines)
            line = mask_pointers(line);
        return lines;
    }

    /// What a command prints, with masked pointers.
    Lines said(const std::string& text) {
        console();
        command(text);
        return masked_console();
    }

    static std::string read_all(const std::string& path = control_path) {
        return host::ProcFile(path).read(1 << 20);
    }

    bool loaded = false;
};

/// The module is loaded, has heard of its ports and logs up to DEBUG.
class ControlTest : public FrameTest {
  protected:
    void SetUp() override {
        set_level(TARV_DEBUG);
        ASSERT_EQ(load(), 0);
        kernel.advance(10);
        host::clear_console();
    }
};

}  // namespace support

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A script: it is refused with an InputError, or played if its time is short.
#include <sstream>

#include "app/script.h"
#include "app/script_line.h"
#include "tests/fuzz/input.h"

namespace {

constexpr std::uint64_t most_ticks = 5000;

const app::Site& site() {
    static const app::Site made = app::read_site({});
    return made;
}

/* The ticks that a script lets pass: only a line that begins with "tick" does. */
std::uint64_t ticks_of(const std::string& text) {
    std::istringstream lines(text);
    std::uint64_t sum = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string verb, number;
        words >> verb >> number;
        if (verb == "tick")
            sum += app::parse_number(number).value_or(0);
    }
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::Input(data, size).rest();
    std::istringstream in(text);
    app::Script script;
    try {
        script = app::read_script(in, "script", site());
    } catch (const fabric::InputError&) {
        return 0;
    }
    if (ticks_of(text) > most_ticks)
        return 0;
    std::ostringstream out, err;
    app::ScriptHost host(script.made_site ? *script.made_site : site(), script.first_jiffy, out,
                         err);
    app::run_script(script, host);
    fuzz::require(out.str().find("left behind") == std::string::npos, out.str());
    return 0;
}

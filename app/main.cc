// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// tarv-host: a host with the address-resolution module loaded, on a simulated InfiniBand fabric.
//
// Exit status: 0 done, 1 the run itself failed, 2 nothing was started, because of the command line
// or of a file that it names.
#include <signal.h>

#include <cstdio>
#include <exception>
#include <string>

#include "app/command_line.h"
#include "app/verbs.h"
#include "fabric/topology.h"

namespace {

constexpr app::Verb verbs[] = {
    {"run", "Run the host: resolve every other host and unload, or until told to stop",
     app::declare_run},
    {"resolve", "Resolve some addresses once, print records and paths, and end",
     app::declare_resolve},
    {"console", "Run the host with a prompt at which it is commanded and looked into",
     app::declare_console},
    {"script", "Play a situation tick by tick in virtual time, from a file of one verb a line",
     app::declare_script},
    {"top", "Show a mounted host at a glance, again and again", app::declare_top},
    {"fabric", "Print the fabric as a picture", app::declare_fabric},
};

int fail(int status, std::string line) {
    for (char& c : line)
        if (c == '\n')
            c = ' ';
    std::fprintf(stderr, "%s\n", line.c_str());
    return status;
}

/* What was printed may still be on its way, and the disk full. */
int close_output(int status) {
    if (std::ferror(stdout) == 0 && std::fflush(stdout) == 0)
        return status;
    return fail(1, "tarv-host: standard output: not all could be written");
}

}  // namespace

int main(int argc, char** argv) try {
    // Who reads may go away before the module is unloaded and the directory unmounted.
    signal(SIGPIPE, SIG_IGN);
    return close_output(app::perform_command_line(argc, argv, verbs));
} catch (const fabric::InputError& error) {
    return fail(2, error.what());
} catch (const app::UsageError& error) {
    return fail(2, std::string("tarv-host: ") + error.what());
} catch (const std::exception& error) {
    return fail(1, std::string("tarv-host: ") + error.what());
}

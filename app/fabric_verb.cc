// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "fabric": the fabric as a picture, for graphviz or drawn by it.
#include <cstdio>
#include <memory>
#include <string>

#include "app/options.h"
#include "app/picture.h"
#include "app/verbs.h"

namespace app {
namespace {

struct FabricOptions {
    HostOptions host;
    std::string form;
};

/* Graphviz writes to our standard output itself. */
void draw(const std::string& dot) {
    std::fflush(stdout);
    FILE* const graphviz = popen("command -v dot >/dev/null && exec dot -Tsvg", "w");
    const bool given = graphviz && std::fputs(dot.c_str(), graphviz) != EOF;
    if (!graphviz || pclose(graphviz) != 0 || !given)
        throw UsageError("svg: dot cannot draw it; it is in the package graphviz");
}

int show(const FabricOptions& options) {
    if (options.form != "dot" && options.form != "svg")
        throw UsageError("\"" + options.form + "\" is neither dot nor svg");
    const std::string dot = to_dot(read_site(options.host));
    if (options.form == "dot")
        std::fputs(dot.c_str(), stdout);
    else
        draw(dot);
    return 0;
}

}  // namespace

Action declare_fabric(CommandLine& line) {
    const auto options = std::make_shared<FabricOptions>();
    line.word("FORM", options->form,
              "dot: as text for graphviz; svg: as a picture, which graphviz draws");
    add_site_options(line, options->host);
    return [options] { return show(*options); };
}

}  // namespace app

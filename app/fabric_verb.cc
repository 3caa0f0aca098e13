// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "fabric": the fabric as a picture, drawn or for graphviz to draw.
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

int show(const FabricOptions& options) {
    if (options.form != "dot" && options.form != "svg")
        throw UsageError("\"" + options.form + "\" is neither dot nor svg");
    const Site site = read_site(options.host);
    std::fputs((options.form == "dot" ? to_dot(site) : to_svg(site)).c_str(), stdout);
    return 0;
}

}  // namespace

Action declare_fabric(CommandLine& line) {
    const auto options = std::make_shared<FabricOptions>();
    line.word("FORM", options->form,
              "svg: as a picture; dot: as text for graphviz, to be drawn otherwise");
    add_site_options(line, options->host);
    return [options] { return show(*options); };
}

}  // namespace app

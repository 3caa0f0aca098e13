// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "resolve": asks the module once for some addresses, or for all, prints what it learned,
// and ends.
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/hops.h"
#include "app/machine.h"
#include "app/options.h"
#include "app/output.h"
#include "app/report.h"
#include "app/resolve.h"
#include "app/stop_signals.h"
#include "app/suggest.h"
#include "app/table.h"
#include "app/verbs.h"

namespace app {
namespace {

struct ResolveVerb {
    HostOptions host;
    std::vector<std::string> addresses;
    bool one_path = false;
    bool hops = false;
    double seconds = 0;  // 0: no limit
};

/* The first IPv4 address under that name, from wherever this machine has its names. */
std::optional<std::uint32_t> look_up(const std::string& name) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0)
        return std::nullopt;
    const std::uint32_t ip = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    return ip;
}

/* The place in the site's list of what was called by name or address. One that is not in it is
 * added to it. */
std::size_t find_host(Site& site, const std::string& word) {
    std::optional<std::uint32_t> ip = address_of(site, word);
    if (!ip) {
        ip = look_up(word);
        if (!ip)
            throw UsageError("\"" + word + "\" is no address, and no host is known by that name" +
                             suggest(word, names_of(site)));
    }
    auto found = std::ranges::find(site.hosts, *ip, &fabric::Host::ip);
    if (found == site.hosts.end())
        found = site.hosts.insert(found, {-1, word, *ip});
    return static_cast<std::size_t>(found - site.hosts.begin());
}

/* In full what was asked for, one by one; of all a line each. */
std::string format_result(Machine& machine, const Resolver& resolver, bool in_full, bool hops) {
    const std::size_t width = terminal_width(STDOUT_FILENO);
    const std::vector<Peer>& peers = resolver.peers();
    const std::string ways = hops ? "\n" + format_hops(machine, peers, width, peers.size()) : "";
    if (in_full)
        return format_records(machine, peers) + format_unresolved(machine, peers, width) + ways;
    return format_peers(machine, peers, width) + format_unresolved(machine, peers, width) + "\n" +
           format_counts(resolver.counts(), peers, width) + ways;
}

/* The module's own lines go to standard error, so that the answer can be piped. */
int resolve(const ResolveVerb& options, Output& output) {
    Site site = read_site(options.host);
    std::vector<std::size_t> wanted;
    for (const std::string& word : options.addresses)
        wanted.push_back(find_host(site, word));
    if (options.hops)
        require_topology(site);
    const StopSignals signals;
    Output log(STDERR_FILENO);
    Machine machine(std::move(site), options.host, {host::Clock::real_time},
                    [&log](const host::LogLine& line) { log.say(line.text + "\n"); });
    machine.start();
    machine.switch_on();
    std::vector<Peer> peers;
    peers.reserve(wanted.size());
    for (const std::size_t host : wanted)
        peers.push_back(peer_at(machine, host));
    if (wanted.empty())
        peers = peers_of(machine);
    for (Peer& peer : peers)
        peer.wanted = options.one_path ? tarv_paths_primary : peer.wanted;
    ResolveOptions limits;
    limits.limit = ticks_of(options.seconds);
    limits.stop = StopSignals::told;
    Resolver resolver(machine, std::move(peers), limits);
    resolver.run();
    output.say(format_result(machine, resolver, !wanted.empty(), options.hops));
    const Departure& departure = machine.stop();
    if (!departure.clean())
        log.say(format_departure(departure));
    return std::ranges::all_of(resolver.peers(), &Peer::resolved) && departure.clean() ? 0 : 1;
}

}  // namespace

Action declare_resolve(CommandLine& line) {
    const auto options = std::make_shared<ResolveVerb>();
    line.words("ADDRESS", options->addresses,
               "Addresses, or names of hosts; none: every host that is known");
    line.flag("--one-path", options->one_path,
              "Be content with one path (otherwise two are wanted where our ports or\n"
              "their LIDs make two)");
    line.flag("--hops", options->hops,
              "Print each path hop by hop: switches, their ports, and what the links do");
    line.seconds("--for", options->seconds,
                 "Give up after so long (otherwise when the module does)");
    add_host_options(line, options->host);
    line.footer("The exit status is 0 only if all were resolved.");
    return [options] {
        Output output(STDOUT_FILENO);
        const int status = resolve(*options, output);
        return output.finish() ? status : 1;
    };
}

}  // namespace app

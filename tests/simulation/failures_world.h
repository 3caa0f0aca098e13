// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ground that a scenario of the failure table plays on: a kernel in virtual time, six hosts on
// one switch, the module on the first of them, and at most one call of one service that fails.
//
// Everything that can be seen from outside goes into one timeline, in order: the console's lines,
// what a load returned, what a client was answered, what it was told later. A Mark says where in it
// the fault struck and what was running then, so that what the module did about it is what follows.
//
// Life cycle: the constructor arms the fault; the scenario takes steps; end() waits for what is
// under way, shows that the module still works, unloads it and looks at what is left. One World
// exists at a time.
#pragma once

#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fabric/fabric.h"
#include "host/check.h"
#include "host/kernel.h"
#include "tarv/tarv.h"

namespace soak {

/// Which call is to fail.
struct Fault {
    std::string service;
    unsigned long nth = 0;  ///< 0: none
};

/// What was running when the fault struck: one of the kernel's contexts, and in process context on
/// whose behalf.
enum class Where : std::uint8_t { load, unload, client, control, event, timer, driver, gsi };
const char* name_of(Where where);

/// The place of the fault in the timeline.
struct Mark {
    Where where;
    std::size_t line;  ///< the first that came after it
};

/// What the SA client counted, over all loads.
struct FailureCounts {
    unsigned gsi_reg = 0;
    unsigned gsi_pool_create = 0;
    unsigned pool_get = 0;
};

/// The module refused to be loaded: the scenario ends here.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class World {
  public:
    explicit World(const Fault& fault);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Steps of a scenario.

    /// Loads the module, attaches the driver and lets the ports come up.
    void load();
    void unload();
    void attach();
    void detach();
    /// A line to the control file. All of it must be taken.
    void command(const std::string& line);
    /// Has the module learn from ARP and ask the SA.
    void switch_on();
    void read_table();
    void read_version();
    void set_level(int level);
    void pass(unsigned long ticks);
    /// A client asks for the host of that number and, where nothing fails, ends with that status.
    void ask(int host, tarv_paths_t paths, tarv_stat_t in_the_end = tarv_stat_ok,
             bool invalidate = false);

    /// When the client that asked last is told, another asks for that host and has it renewed.
    void then_renew(int host) { clients_.back().renews = host; }

    fabric::Fabric& fabric() { return fabric_; }
    static std::uint32_t ip_of(int host);
    /// "0x..." of a host's GID, as commands take it.
    std::string gid_of(int host);

    // Afterwards.

    /// Lets what waits come to its end; nothing may be waiting afterwards.
    void wait_for_answers();
    /// Without any further fault a host that nobody asked for is resolved, with both paths. The
    /// ports come up anew before, where `after_link_up` is set.
    void follow_up(bool after_link_up);
    /// Unloads the module where it is loaded, and counts its clients' answers.
    void end();

    const std::vector<std::string>& timeline() const { return timeline_; }
    const std::optional<Mark>& mark() const { return mark_; }
    const std::vector<int>& load_results() const { return load_results_; }
    /// Requests that were never answered although they were told to wait, the module's own for an
    /// invalidation included, and how many of them an unload found waiting for ARP.
    unsigned unanswered() const;
    unsigned dropped_at_unload() const { return dropped_at_unload_; }
    const FailureCounts& counts() const { return counts_; }
    /// "2 ok, 1 timeout": how the clients' requests ended.
    std::string ends() const;

    std::vector<std::string> violations;

  private:
    struct Client {
        World* world;
        std::string name;
        tarv_stat_t expected;
        bool of_scenario;
        tarv_stat_t status = tarv_stat_pending;
        int renews = 0;  ///< the host that is asked for next; 0: none
        unsigned told = 0;
        tarv_stat_t last = tarv_stat_pending;
    };
    class Phase;

    static void reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);
    void count_failures();
    Client& request(int host, tarv_paths_t paths, tarv_stat_t expected, bool invalidate);
    void heal_fabric();
    void switch_all_on();
    void note(const std::string& line) { timeline_.push_back(line); }
    void hear_console(const std::string& line);
    void fault_struck();
    void check_locks(const char* after);
    void check_remains();
    void check_client(const Client& client);

    host::Kernel kernel_;
    fabric::Fabric fabric_;
    const bool faulty_;
    bool loaded_ = false;
    bool following_up_ = false;
    bool asking_ = false;  ///< a client's call is running
    Where phase_ = Where::client;
    std::vector<std::string> timeline_;
    std::optional<Mark> mark_;
    std::vector<int> load_results_;
    std::deque<Client> clients_;
    unsigned dropped_at_unload_ = 0;
    FailureCounts counts_;
    unsigned own_waiting_ = 0;  ///< requests of the module's own that have to wait
    unsigned own_told_ = 0;     ///< and were answered
};

}  // namespace soak

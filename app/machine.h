// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The assembled host: a kernel, a fabric around it, the module, and the IPoIB driver attached to
// it. Everybody who needs a whole host has this one: the program, scripts, tests.
//
// Life cycle: the constructor makes the kernel and the fabric and sets the trace levels; load() and
// attach() bring the module in, unload() takes all of that back and looks at what is left, any
// number of times. start() and stop() are the same for who wants a running host and nothing else.
// In between the kernel's clock runs: by itself in real time, by Kernel::advance() in virtual time.
// One Machine exists at a time.
//
// Where the site has an adapter, our ports and the SA are those of its fabric, and where it has an
// IPoIB interface too, everything is real and there is no simulated fabric.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/options.h"
#include "fabric/fabric.h"
#include "host/console.h"
#include "host/kernel.h"
#include "host/services.h"
#include "rdma/host.h"
#include "tarv/tarv.h"

namespace app {

/// How the module went.
struct Departure {
    std::vector<std::string> remains;  ///< what it left behind, one line each; empty when clean
    host::MemoryUse memory;            ///< afterwards, with its totals
    bool capture_whole = true;         ///< what was to be saved of packets could be

    bool clean() const { return remains.empty() && capture_whole; }
};

class Machine {
  public:
    /// `console` gets every console line. Throws fabric::InputError for a fabric that cannot be
    /// used, UsageError for a capture file that cannot be made.
    Machine(Site site, const HostOptions& options, const host::Options& kernel,
            host::ConsoleSink console = {}, const fabric::FabricOptions& fabric = {});
    /// Stops, if nobody did.
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    /// Loads the module, with parameters as NAME=VALUE; what its init function says, 0 when it is
    /// in. Throws UsageError for a parameter that the module does not take.
    int load(const std::vector<std::string>& parameters = {});
    bool loaded() const { return loaded_; }
    /// The fabric's IPoIB driver comes to the loaded module.
    tarv_stat_t attach() { return driver().attach(); }
    /// Detaches the driver, if it is attached, and unloads the module. The fabric and the kernel
    /// stay.
    Departure unload();

    /// Loads the module with the parameters of the options, attaches the driver, and waits until
    /// the module has heard of its ports. Throws what load() throws, and std::runtime_error when
    /// the module or the driver refuses.
    void start();

    /// Has the module learn from ARP packets and ask the SA for paths, which it does not do by
    /// itself after a load.
    void switch_on();

    /// One line for the module's control file.
    void command(const std::string& line);

    /// Unloads the module and ends a capture. Called again, it only gives the same answer.
    const Departure& stop();

    host::Kernel& kernel() { return kernel_; }
    /// Throws std::runtime_error where there is no simulated one.
    fabric::Fabric& fabric();
    bool has_fabric() const { return fabric_.has_value(); }

    const Site& site() const { return site_; }
    fabric::Adapter& adapter();
    /// See fabric::Tap.
    void on_packet(fabric::Tap::Hook hook) { tap().on_packet(std::move(hook)); }

    /// A function that the module offers to other modules, as inter_module_get() finds it, to be
    /// called until the unload. Throws std::runtime_error when it does not.
    template <class Function>
    Function* function(const std::string& name) {
        return use(name).function<Function>();
    }

  private:
    void make_surroundings(fabric::FabricOptions options);
    const host::InterModuleUse& use(const std::string& name);

    fabric::Driver& driver();
    fabric::Tap& tap();

    const HostOptions options_;
    const Site site_;
    host::Kernel kernel_;
    std::optional<fabric::Fabric> fabric_;  ///< this, or
    std::optional<rdma::Host> real_;        ///< that
    bool loaded_ = false;
    std::mutex uses_mutex_;
    std::map<std::string, host::InterModuleUse> uses_;  ///< of the loaded module's names
    Departure departure_;
};

}  // namespace app

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The host that a script drives: a kernel in virtual time, a fabric around it, and the module,
// which may be loaded and unloaded any number of times or fail to load.
//
// Everything runs on the caller's thread, in one order: one script gives one transcript. Whatever
// is printed is remembered, because the script's expectations are about it. One ScriptHost exists
// at a time.
#pragma once

#include <deque>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "app/options.h"
#include "fabric/fabric.h"
#include "host/kernel.h"
#include "host/services.h"
#include "tarv/tarv.h"

namespace app {

/// A request for an address, as a client of the module makes it.
struct ScriptRequest {
    std::uint32_t ip = 0;
    std::uint32_t from = 0;
    tarv_paths_t paths = tarv_paths_none;
    bool invalidate = false;
    bool callback = true;
};

/// How a request stands.
struct ScriptReply {
    tarv_stat_t status = tarv_stat_pending;
    unsigned callbacks = 0;  ///< how often the module has called back
};

class ScriptHost {
  public:
    /// Lines go to `out`, failures to `err`.
    ScriptHost(Site site, unsigned long first_jiffy, std::ostream& out, std::ostream& err);
    ~ScriptHost();
    ScriptHost(const ScriptHost&) = delete;
    ScriptHost& operator=(const ScriptHost&) = delete;

    host::Kernel& kernel() { return kernel_; }
    fabric::Fabric& fabric() { return fabric_; }

    /// Loads the module and attaches the driver. A failure is printed.
    void load(const std::vector<std::string>& parameters);
    /// Detaches the driver, unloads the module and prints what remains.
    void unload();
    bool loaded() const { return loaded_; }

    /// Prints the status, and the record of a hit. A callback prints its own line later.
    void resolve(const ScriptRequest& request);
    /// Of the request with that number, from 1; null when none has been made yet.
    const ScriptReply* reply(std::size_t number) const;

    /// A function that the module offers to others; null when it does not, which is printed.
    template <class Function>
    Function* function(const std::string& verb, const std::string& name) {
        return reinterpret_cast<Function*>(const_cast<void*>(find(verb, name)));
    }

    /// Prints a text of one or more lines.
    void say(const std::string& text);
    /// The lines printed since forget_lines().
    const std::vector<std::string>& lines() const { return lines_; }
    void forget_lines() { lines_.clear(); }

    /// An expectation failed, or a line of the script could not be carried out.
    void fail(const std::string& place, const std::string& message);
    /// Something failed, or the module left something behind.
    bool failed() const { return failed_; }

  private:
    struct Request : ScriptReply {
        ScriptHost* host;
        std::size_t number;
        tarv_arp_data_t record{};
    };

    static void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);
    const void* find(const std::string& verb, const std::string& name);
    void report_remains();

    std::ostream& out_;
    std::ostream& err_;
    host::Kernel kernel_;
    fabric::Fabric fabric_;
    std::deque<Request> requests_;  // they stay where they are: the module points at them
    std::vector<std::string> lines_;
    bool loaded_ = false;
    bool failed_ = false;
};

}  // namespace app

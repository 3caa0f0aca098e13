// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The host that a script drives: a machine in virtual time, whose module may be loaded and unloaded
// any number of times or fail to load.
//
// Everything runs on the caller's thread, in one order: one script gives one transcript. Whatever
// is printed is remembered, because the script's expectations are about it. One ScriptHost exists
// at a time.
//
// Each way by which a script enters the module is one virtual function, so that who judges the
// module can stand around it: he is told before and after.
#pragma once

#include <deque>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/machine.h"
#include "app/options.h"
#include "host/check.h"
#include "tarv/tarv.h"

namespace app {

/// A request for an address, as a client of the module makes it.
struct ScriptRequest {
    std::uint32_t ip = 0;
    std::uint32_t from = 0;
    tarv_paths_t paths = tarv_paths_none;
    bool invalidate = false;
    bool callback = true;
    bool again = false;      ///< the callback asks once more, before it returns
    bool in_driver = false;  ///< asked where nothing may sleep
    unsigned times = 1;
};

class ScriptHost;

/// A request that was made, and how it stands.
struct ScriptReply {
    ScriptHost* host = nullptr;
    std::size_t number = 0;  ///< from 1
    ScriptRequest request;
    tarv_stat_t status = tarv_stat_pending;
    unsigned callbacks = 0;  ///< how often the module has called back
};

/// Somebody who has the control file open.
struct ScriptReader {
    std::unique_ptr<host::ProcFile> file;
};
inline constexpr std::size_t script_readers = 2;

class ScriptHost {
  public:
    /// Lines go to `out`, failures to `err`.
    ScriptHost(Site site, unsigned long first_jiffy, std::ostream& out, std::ostream& err);
    virtual ~ScriptHost();
    ScriptHost(const ScriptHost&) = delete;
    ScriptHost& operator=(const ScriptHost&) = delete;

    Machine& machine() { return machine_; }
    host::Kernel& kernel() { return machine_.kernel(); }
    fabric::Fabric& fabric() { return machine_.fabric(); }
    bool loaded() const { return machine_.loaded(); }

    // What the verbs do. Each says what came of it; where the module is missing, that.

    void load_module(const std::vector<std::string>& parameters);
    void unload_module();
    void resolve(const ScriptRequest& request);
    void look_up(const gx_gid_t& gid);
    /// An ARP packet's data come from the driver.
    void hear(const tarv_arp_data_t& record);
    void write_control(const std::string& text);
    void print_file(const std::string& name, std::size_t chunk);
    /// `offset` -1: where the reader's last read ended.
    void read_part(std::size_t reader, std::size_t size, long offset);
    void close_reader(std::size_t reader);
    void attach_driver();
    void detach_driver();
    /// Faults of the kernel and the fabric end; packets that were held back arrive.
    void calm();

    /// Of the request with that number, from 1; null when none has been made yet.
    const ScriptReply* reply(std::size_t number) const;

    /// Prints a text of one or more lines.
    virtual void say(const std::string& text);
    /// The lines printed since forget_lines().
    const std::vector<std::string>& lines() const { return lines_; }
    void forget_lines() { lines_.clear(); }

    /// What was said of the line that could not be carried out, if it was one; the next time none.
    std::string take_refusal() { return std::exchange(refusal_, {}); }

    /// An expectation failed, or a line of the script could not be carried out.
    virtual void fail(const std::string& place, const std::string& message);
    /// Something failed, or the module left something behind.
    bool failed() const { return failed_; }

  protected:
    // The module is entered here, and nowhere else by a script.

    /// What the module's init function says; the driver is not attached yet.
    virtual int enter_load(const std::vector<std::string>& parameters);
    virtual Departure enter_unload();
    virtual tarv_stat_t enter_request(ScriptReply& made, tarv_arp_data_t& record);
    virtual tarv_stat_t enter_lookup(const gx_gid_t& gid, tarv_arp_data_t& record);
    virtual tarv_stat_t enter_arp(tarv_arp_data_t record);
    virtual long enter_write(host::ProcFile& file, const std::string& text);
    virtual std::string enter_read_whole(host::ProcFile& file, const std::string& name,
                                         std::size_t chunk);
    virtual std::string enter_read_part(ScriptReader& reader, std::size_t size, long offset);
    virtual tarv_stat_t enter_attach();
    virtual tarv_stat_t enter_detach();
    /// The module calls a client back.
    virtual void replied(ScriptReply& made, tarv_stat_t status, const tarv_arp_data_t* record);
    virtual void reader_gone(ScriptReader&) {}

    const std::deque<ScriptReply>& requests() const { return requests_; }

  private:
    void ask(const ScriptRequest& request);
    static void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);
    template <class Call>
    void with_file(const std::string& verb, const std::string& name, Call call);
    template <class Function>
    Function* function(const std::string& verb, const std::string& name);
    void report(const std::vector<std::string>& remains);
    void refuse(const std::string& text);

    std::ostream& out_;
    std::ostream& err_;
    Machine machine_;
    std::deque<ScriptReply> requests_;  // they stay where they are: the module points at them
    ScriptReader readers_[script_readers];
    std::vector<std::string> lines_;
    std::string refusal_;
    bool failed_ = false;
};

}  // namespace app

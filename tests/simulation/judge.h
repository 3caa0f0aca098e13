// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The judge: a script's host with the model beside its module.
//
// Everything that enters the module passes through here first: a script's own calls, and, seen by
// the fabric's witness and in front of the timers' functions, what time brings. Each such entry is
// a window. When it opens the model is told; when it closes, the callbacks that the module made
// meanwhile, and what it sent, are compared with what the model wants: one packet too many or too
// few is a violation. When the outermost window closes, so are the table, both lists and all
// switches, and every client's request is accounted for.
//
// Where a call of the kernel was made to fail inside a window, or clients and packets came into the
// middle of one, the model cannot say what had to happen. The module's state is taken over then,
// but the consistency of its table and lists and the account of the requests are checked as ever.
//
// A rule of the kernel that is broken ends the process; a violation found here is kept, and the
// caller asks for it after every step.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/script.h"
#include "fabric/witness.h"
#include "tests/simulation/model.h"
#include "tests/simulation/module_state.h"

namespace simulation {

/// Something that must be true was not.
struct Violation {
    std::string name;  ///< a word, the same for the same kind of fault
    std::string text;
};

class Judge : public app::ScriptHost, private fabric::Witness {
  public:
    Judge(const app::Site& site, unsigned long first_jiffy);
    ~Judge() override;

    /// A line of a script. One that cannot be carried out, because there is no such LID or port, is
    /// no violation.
    void take(const app::ScriptStep& step);
    /// Unloads the module, if it is loaded, and looks at what remains; see violation(). Before,
    /// nobody may be waiting any more, unless `may_wait`.
    void end(bool may_wait);

    const std::optional<Violation>& violation() const { return violation_; }
    /// Of everything that was printed and answered: equal runs have equal ones.
    std::uint64_t digest() const { return digest_; }
    Counts counts() const;

    void say(const std::string& text) override;
    void fail(const std::string& place, const std::string& message) override;

  protected:
    void violate(const char* name, const std::string& text);

  private:
    enum class Standing : std::uint8_t { asking, pending, refused, answered, silent };

    /// What is known of a client's request beyond what the script knows.
    struct Client {
        Standing state = Standing::asking;
        unsigned seen = 0;           ///< the look that saw it on a list
        bool waits_for_arp = false;  ///< and it was the ARP list
    };

    /// One entry into the module, from its beginning to its return.
    struct Window {
        const char* what;
        std::vector<Reply> expected;
        std::vector<Reply> got;
        std::vector<Sent> to_send;
        std::vector<Sent> sent;
    };

    /// What a reader of the control file has to get, and where in it he is.
    struct Reading {
        std::string text;
        std::size_t at = 0;
    };

    void violate(const std::optional<Difference>& found);
    Client& client_of(const app::ScriptReply& made) { return clients_[made.number - 1]; }
    Client& client_of(void* context) { return client_of(*static_cast<app::ScriptReply*>(context)); }

    // Windows.
    void open(const char* what);
    void model_told();
    void close();
    bool knows() const;  ///< the model can say what has to happen
    void compare_replies(const Window& window);
    void compare_sent(const Window& window);

    // Checks.
    void check_state();
    void look_everywhere(std::size_t sample);
    void account(const State& found);
    void forget(const app::ScriptReply& made, Client& client, const char* where);
    void check_patience();
    void check_remaining(const std::string& line);

    // What a script does.
    int enter_load(const std::vector<std::string>& parameters) override;
    app::Departure enter_unload() override;
    tarv_stat_t enter_request(app::ScriptReply& made, tarv_arp_data_t& record) override;
    tarv_stat_t enter_lookup(const gx_gid_t& gid, tarv_arp_data_t& record) override;
    tarv_stat_t enter_arp(tarv_arp_data_t record) override;
    long enter_write(host::ProcFile& file, const std::string& text) override;
    std::string enter_read_whole(host::ProcFile& file, const std::string& name,
                                 std::size_t chunk) override;
    std::string enter_read_part(app::ScriptReader& reader, std::size_t size, long offset) override;
    tarv_stat_t enter_attach() override;
    tarv_stat_t enter_detach() override;
    void reader_gone(app::ScriptReader& reader) override;
    void replied(app::ScriptReply& made, tarv_stat_t status,
                 const tarv_arp_data_t* record) override;

    Reading& begin_reading(const app::ScriptReader* reader);
    void wrap_timers();
    template <int timer>
    static void on_timer(unsigned long context);
    void run_timer(int timer, unsigned long context);

    // What the fabric does.
    void before_arp(const tarv_arp_data_t& record) override;
    void after_arp(tarv_stat_t result) override;
    void before_answer(int port, gsi_dtgrm_t* answer) override;
    void after_answer() override { close(); }
    void before_event(const gx_event_record_t& event) override;
    void after_event() override { close(); }
    void arp_request(const tarv_arp_data_t& record, int media_reset) override;
    void query(int port, const gsi_dtgrm_t& posted) override;

    struct Timer {
        void (*function)(unsigned long);
        unsigned long last_run;
    };

    const unsigned long first_jiffy_;
    const unsigned long pools_failed_before_;  ///< calls, when this host began
    const unsigned long deregistrations_failed_before_;
    Model model_{fabric()};
    State found_;  ///< the module's, at the last look
    bool unloading_ = false;
    std::vector<Window> windows_;
    const char* last_window_ = "";        ///< the outermost that closed last
    unsigned long failed_before_ = 0;     ///< calls, when the outermost window opened
    unsigned long no_memory_before_ = 0;  ///< of them, allocations
    bool disturbed_ = false;              ///< something came into the middle of a window
    bool repeats_known_ = true;           ///< the model knows what "*" repeats
    tarv_stat_t arp_result_ = tarv_stat_ok;
    std::deque<Client> clients_;  ///< by the numbers of their requests
    std::vector<std::size_t> waiting_;
    unsigned looks_ = 0;
    std::map<const app::ScriptReader*, Reading> readings_;
    const app::ScriptReader* holder_ = nullptr;  ///< whose text the module holds
    bool reading_known_ = true;                  ///< nobody has got what cannot be told
    Timer timers_[3]{};
    unsigned long steps_ = 0;
    std::optional<Violation> violation_;
    std::uint64_t digest_ = 0xCBF29CE484222325;
    Counts counts_;
};

}  // namespace simulation

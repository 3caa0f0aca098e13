// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A simulation: a world, that is a kernel in virtual time, a fabric, the module in it, and beside
// the module the model.
//
// Everything that enters the module passes through here first: the steps' own calls, and, seen by
// the fabric's witness and in front of the timers' functions, what time brings. Each such entry is
// a window. When it opens the model is told; when it closes, the callbacks that the module made
// meanwhile are compared with those that the model wants. When the outermost one closes, so are the
// table, both lists and all switches, and every client's request is accounted for.
//
// Where a call of the kernel was made to fail inside a window, or clients and packets came into the
// middle of one, the model cannot say what had to happen. The module's state is taken over then,
// but the consistency of its table and lists and the account of the requests are checked as ever.
//
// A rule of the kernel that is broken ends the process; a violation found here is kept, and the
// caller asks for it after every step.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fabric/fabric.h"
#include "fabric/witness.h"
#include "host/console.h"
#include "host/kernel.h"
#include "host/services.h"
#include "platform/timer.h"
#include "tests/simulation/model.h"
#include "tests/simulation/outcome.h"
#include "tests/simulation/step.h"

struct tarv_list_t;

namespace soak {

/// Something that must be true was not.
struct Violation {
    std::string name;  ///< a word, the same for the same kind of fault
    std::string text;
};

class Simulation final : private fabric::Witness {
  public:
    explicit Simulation(const WorldShape& shape);
    /// Unloads the module, if it is loaded, and looks at what remains; see violation().
    void end();
    ~Simulation() override;
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    void take(const Step& step);

    const std::optional<Violation>& violation() const { return violation_; }
    /// Of everything that was printed and answered: equal runs have equal ones.
    std::uint64_t digest() const { return digest_; }
    Tally tally() const;

  private:
    enum class State : std::uint8_t { asking, pending, refused, answered, silent };

    /// A request of a client.
    struct Token {
        Simulation* world;
        std::size_t number;
        Question question;
        bool again;  ///< its callback asks once more
        State state = State::asking;
        unsigned seen = 0;           ///< the walk that saw it on a list
        bool waits_for_arp = false;  ///< and it was the ARP list
    };

    /// One entry into the module, from its beginning to its return.
    struct Window {
        const char* what;
        std::vector<Reply> expected;
        std::vector<Reply> got;
    };

    /// What a reader of the control file has got so far.
    struct Reader {
        std::unique_ptr<host::ProcFile> file;
        std::string text;  ///< that it has to get
        std::size_t got = 0;
    };

    void fail(const char* name, const std::string& text);
    void hash(std::string_view bytes);
    void hash(std::uint64_t number);

    std::uint32_t ip_of(std::uint32_t address) const;
    gx_gid_t gid_of(std::uint32_t number) const;

    // Windows.
    void open(const char* what);
    void model_told() { windows_.back().expected = model_.take_replies(); }
    void close();
    bool knows() const;  ///< the model can say what has to happen
    void compare_replies(const Window& window);
    template <class Tell, class Act>
    void pass(const char* what, Tell tell, Act act) {
        open(what);
        tell();
        model_told();
        act();
        close();
    }

    // Checks.
    void check_state();
    void check_tables();
    void compare_tables();
    void compare_entry(const Cached& expected, const tarv_arp_data_t& found, unsigned long stamp);
    void missing_entry(const Cached& expected);
    bool walk(const tarv_list_t& list, const Model::Requests& expected, bool arp);
    void compare_requests(const tarv_list_t& list, const Model::Requests& expected, bool arp);
    void account();
    SilentEnd silent_end(const Token& token) const;
    void take_over();
    void check_counts();
    void look_up_all();
    void check_patience();
    void check_remains();

    // Steps.
    using StepFunction = void (Simulation::*)(const Step&);
    static const StepFunction step_functions[];
    void ask(const Step& step);
    void lookup(const Step& step);
    void arp(const Step& step);
    void write(const Step& step);
    void read(const Step& step);
    void chunk(const Step& step);
    void close_reader(const Step& step);
    void peer_asks(const Step& step);
    void announce(const Step& step);
    void peer_link(const Step& step);
    void peer_gid(const Step& step);
    void peer_lid(const Step& step);
    void peer_qpn(const Step& step);
    void peer_fault(const Step& step);
    void sa_fault(const Step& step);
    void sa_answer(const Step& step);
    void port_fault(const Step& step);
    void calm(const Step& step);
    void link(const Step& step);
    void lid(const Step& step);
    void mtu(const Step& step);
    void sm(const Step& step);
    void event(const Step& step);
    void pkeys(const Step& step);
    void pkey(const Step& step);
    void fail_call(const Step& step);
    void empty_hand(const Step& step);
    void level(const Step& step);
    void attach(const Step& step);
    void detach(const Step& step);
    void advance(const Step& step);
    void load(const Step& step);
    void unload(const Step& step);

    void name_peer(std::uint32_t address, std::uint32_t number);
    void ask_once(const Question& question, bool again);
    tarv_arp_data_t made_packet(std::uint32_t ip, std::uint32_t as, std::uint16_t operation,
                                std::uint32_t port) const;
    void attach_driver();
    void wrap_timers();
    void begin_reading(Reader& reader, std::size_t size);
    void drop(Reader& reader);

    // The module calls.
    static void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);
    void replied(Token& token, tarv_stat_t status, const tarv_arp_data_t* record);
    static tarv_stat_t on_send(tarv_arp_data_t* record, void* context, int media_reset);
    template <int timer>
    static void on_timer(unsigned long context);
    void run_timer(int timer, unsigned long context);

    // The fabric enters the module.
    void before_arp(const tarv_arp_data_t& record) override;
    void after_arp(tarv_stat_t result) override;
    void before_answer(int port, gsi_dtgrm_t* answer) override;
    void after_answer() override;
    void before_event(const gx_event_record_t& event) override;
    void after_event() override;
    void arp_request(const tarv_arp_data_t&, int) override {}
    void query(int, const gsi_dtgrm_t&) override {}

    struct Timer {
        timer_list* timer;
        void (*function)(unsigned long);
        unsigned long last_run;
        unsigned long period;
    };

    const WorldShape shape_;
    host::Kernel kernel_;
    fabric::Fabric fabric_;
    Model model_;
    bool loaded_ = false;
    bool unloading_ = false;
    std::vector<Window> windows_;
    const char* last_window_ = "";        ///< the outermost that closed last
    unsigned long failed_before_ = 0;     ///< calls, when the outermost window opened
    unsigned long no_memory_before_ = 0;  ///< of them, allocations
    bool disturbed_ = false;              ///< something came into the middle of a window
    bool repeats_known_ = true;           ///< the model knows what "*" repeats
    tarv_stat_t arp_result_ = tarv_stat_ok;
    std::deque<Token> tokens_;  // they stay where they are: the module points at them
    std::vector<Token*> waiting_;
    unsigned walks_ = 0;
    std::optional<std::uint32_t>
        answer_inside_;  ///< the send that is made next is answered at once
    Reader readers_[2];
    const Reader* holder_ = nullptr;  ///< whose text the module holds
    Timer timers_[3]{};
    unsigned long steps_ = 0;
    std::optional<Violation> violation_;
    std::uint64_t digest_ = 0xCBF29CE484222325;
    Tally tally_;
};

}  // namespace soak

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Everything hostile that can come to the module: what is written to the control file, what a
// driver hands in, answers of the SA of any content and any reported size, asked for and not.
//
// An input is a script in bytes. Each step becomes a line of a script, and is played before the
// judge of the simulation, on four hosts of which we are the first: whatever comes, no rule of the
// kernel is broken, each client has one answer, and the module does what the model says.
//
// Byte 0: modes and level. Then steps, each a kind (1) and its operands, as the functions below
// read them.
#include <algorithm>

#include "app/script_text.h"
#include "fabric/rmpp.h"
#include "host/faults.h"
#include "tests/fuzz/input.h"
#include "tests/simulation/judge.h"

namespace {

using fuzz::Input;

std::string hex(std::span<const std::uint8_t> bytes) {
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

/* The address of a host from 1 on; those above 4 are nobody's. */
std::string ip(std::uint8_t host) {
    return "10.0.0." + std::to_string(host);
}

std::string port(std::uint8_t byte) {
    return "port " + std::to_string(1 + (byte & 1)) + ' ';
}

class Player {
  public:
    explicit Player(Input& input);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    void step();

  private:
    void play(const std::string& text);
    void ask();
    void command();
    void read();
    void hear_odd();
    void answer();
    void behave();
    void look_up();
    void fail();
    fabric::Bytes header(std::uint8_t odd);
    fabric::Bytes record(std::uint8_t odd);

    template <class T>
    T take() {
        return input_.take<T>();
    }
    std::uint8_t byte() { return take<std::uint8_t>(); }

    Input& input_;
    app::ScriptReading reading_{.site = nullptr};
    int lines_ = 0;
    std::optional<simulation::Judge> judge_;
};

Player::Player(Input& input) : input_(input) {
    play("hosts 4");
    judge_.emplace(*reading_.site, reading_.first_jiffy);
    const std::uint8_t modes = byte();
    play("level module " + std::to_string(std::min(modes & 7, 5)));
    play("load");
    if ((modes & 8) == 0)
        play("control enable");
    if ((modes & 0x10) == 0)
        play("control sa_queries on");
    if (modes & 0x20)
        play("control statics_inv off");
    if (modes & 0x40)
        play("fabric sa drop all");
}

/* Looks at everything that prints the table and the requests. */
Player::~Player() {
    for (const char* const line :
         {"control dump", "control show 10.0.0.2", "control show_paths 10.0.0.2",
          "control show_stat", "cat control"})
        play(line);
    judge_->end(true);
    if (judge_->violation())
        fuzz::require(false, judge_->violation()->name + ": " + judge_->violation()->text);
}

void Player::play(const std::string& text) {
    app::ScriptLine line("input", ++lines_, text);
    const app::ScriptStep step = app::read_step(line, reading_);
    if (!judge_)
        return;
    judge_->take(step);
    if (judge_->violation())
        fuzz::require(false,
                      text + ": " + judge_->violation()->name + ": " + judge_->violation()->text);
}

/* Host (1), how (1). */
void Player::ask() {
    const std::string address = ip(byte());
    const std::uint8_t how = byte();
    std::string text = "resolve " + address + " paths " + std::to_string(how & 3);
    constexpr const char* words[] = {"invalidate", "no-callback", "in-driver", "again"};
    for (int i = 0; i < 4; ++i)
        if (how >> (2 + i) & 1)
            text += std::string(" ") + words[i];
    play(text);
}

/* All up to FF is written. */
void Player::command() {
    std::string text = "control -n ";
    for (const char c : input_.text_until(0xFF)) {
        const auto code = static_cast<std::uint8_t>(c);
        text +=
            code > 0x20 && code < 0x7F && c != '\\' ? std::string(1, c) : "\\x" + hex({&code, 1});
    }
    play(text);
}

/* Reader (1), bytes (2), offset (4), where all ones continue the last one; bit 1 of the reader: he
 * goes away. */
void Player::read() {
    const std::uint8_t who = byte();
    const auto size = take<std::uint16_t>();
    const auto offset = take<std::uint32_t>();
    const std::string reader = "reader " + std::to_string(1 + (who & 1));
    if (who & 2)
        return play(reader + " close");
    play(reader + " read " + std::to_string(size) +
         (offset == ~0u ? "" : " at " + std::to_string(offset)));
}

/* ARP data of a host (1), so many (1) bytes of it replaced: place (2), value (1). */
void Player::hear_odd() {
    std::string text = "arp reply from " + ip(static_cast<std::uint8_t>(2 + byte() % 3));
    for (auto left = byte(); left > 0 && !input_.at_end(); left--) {
        const auto place = take<std::uint16_t>() % sizeof(tarv_arp_data_t);
        const std::uint8_t value = byte();
        text += " bytes " + std::to_string(place) + ' ' + hex({&value, 1});
    }
    play(text);
}

/* The driver answers while it sends, fails to send, or knows nothing of an interface. */
void Player::behave() {
    const std::uint8_t how = byte();
    if (how & 1)
        play("fail send_arp nth 1");
    if (how & 2)
        play("driver quick");
    if (how & 4)
        play("fail get_if_info nth 1");
    play("driver pkey " + std::to_string(take<std::uint16_t>()));
}

void Player::look_up() {
    play("lookup-gid " + app::format_digits(take<gx_gid_t>()));
    play("lookup-gid " +
         app::format_digits(fabric::held(
             judge_->fabric().peers().station(judge_->fabric().hosts()[1 + byte() % 3].ip).gid)));
}

/* Service (1), call (1). */
void Player::fail() {
    const auto& services = host::services_that_fail();
    const std::string& service = services[byte() % services.size()];
    play("fail " + service + " nth " + std::to_string(1 + byte() % 8));
}

// Answers of the SA.

/* Which parts of an answer are the input's own, instead of what a true SA would say. */
enum Odd : std::uint8_t {
    odd_header = 1,
    odd_segments = 2,
    odd_reported_size = 4,
    odd_length = 8,
    odd_port = 16,
    odd_records = 32,
    odd_sa_header = 64,
};

/* Answers of more records and of more segments only take longer. */
constexpr int most_records = 31;
constexpr std::size_t shortest_segment = 8;

fabric::Bytes Player::header(std::uint8_t odd) {
    fabric::MadHeader header;
    header.transaction = byte();
    header.management_class = fabric::sa_class;
    header.class_version = fabric::sa_class_version;
    header.method = fabric::method_get_multi_resp;
    header.attribute = fabric::attribute_path_record;
    if (odd & odd_header) {
        header.base_version = byte();
        header.management_class = byte();
        header.class_version = byte();
        header.method = byte();
        header.status = take<std::uint16_t>();
        header.attribute = take<std::uint16_t>();
    }
    fabric::Bytes mad(fabric::sa_data_offset);
    fabric::encode(header, mad);
    mad[fabric::sa_offset + 9] = fabric::PathRecord::wire_size / 8;
    if (odd & odd_sa_header)
        std::ranges::copy(input_.bytes(fabric::sa_header_size), mad.begin() + fabric::sa_offset);
    return mad;
}

/* A true path to a host, or 64 bytes of the input. */
fabric::Bytes Player::record(std::uint8_t odd) {
    fabric::Bytes bytes(fabric::PathRecord::wire_size);
    if (odd & odd_records) {
        std::ranges::copy(input_.bytes(bytes.size()), bytes.begin());
        return bytes;
    }
    const std::uint8_t ends = byte();
    fabric::Fabric& fabric = judge_->fabric();
    const auto peer = fabric.peers().station(fabric.hosts()[1 + ends % 3].ip);
    fabric::PathRecord path;
    path.dgid = peer.gid;
    path.dlid = peer.lid;
    path.sgid = fabric.adapter().port(1 + (ends >> 4 & 1)).gid;
    path.pkey = 0xFFFF;
    fabric::encode(path, bytes);
    return bytes;
}

/* What is odd (1), the transaction (1), then what the oddities ask for: header (8), SA header (20),
 * number of records (1) and the records, whose segments hold so many bytes (1) and 8, of which the
 * last is cut to so many (1), and which are reported (4) to have that size. */
void Player::answer() {
    const std::uint8_t odd = byte();
    const fabric::Bytes headers = header(odd);
    fabric::Bytes data;
    for (int left = byte() & most_records; left > 0; left--) {
        const fabric::Bytes next = record(odd);
        data.insert(data.end(), next.begin(), next.end());
    }
    const std::size_t piece =
        odd & odd_segments ? shortest_segment + byte() : fabric::PathRecord::wire_size;
    const std::size_t length = odd & odd_length ? byte() : ~0u;
    std::string text = "packet mad " + port(odd & odd_port ? 1 : 0);
    if (odd & odd_reported_size)
        text += "size " + std::to_string(take<std::uint32_t>()) + ' ';
    if ((odd & odd_segments) == 0) {
        fabric::Bytes mad = headers;
        mad.insert(mad.end(), data.begin(), data.end());
        mad.resize(std::min(mad.size(), length));
        return play(text + hex(mad));
    }
    const fabric::RmppSender sender(headers, data, piece);
    for (std::uint32_t number = 1; number <= sender.segments(); number++) {
        fabric::Bytes mad = sender.segment(number);
        if (number == sender.segments())
            mad.resize(std::min(mad.size(), length));
        play(text + hex(mad));
    }
}

void Player::step() {
    switch (byte() % 13) {
        case 0:
            return ask();
        case 1:
            return play("tick " + std::to_string(byte()));
        case 2:
            return command();
        case 3:
            return read();
        case 4:
            return hear_odd();
        case 5:
            return play("arp reply from 10.0.0.2 bytes 0 " +
                        hex(take<std::array<std::uint8_t, sizeof(tarv_arp_data_t)>>()));
        case 6:
            return play("packet ipoib port 1 " + hex(input_.bytes(byte())));
        case 7:
            return answer();
        case 8: {
            const std::string where = "packet mad " + port(byte());
            return play(where + hex(input_.bytes(take<std::uint16_t>())));
        }
        case 9: {
            const std::string where = port(byte());
            return play((byte() & 1 ? "event link_up " : "event link_down ") + where);
        }
        case 10:
            return behave();
        case 11:
            return look_up();
        default:
            return fail();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Player player(input);
    while (!input.at_end())
        player.step();
    return 0;
}

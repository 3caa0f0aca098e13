// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Reads a topology: first line by line, then the links by the names in them, then whatever the
// file left out. Everything that a line says about another node waits until all nodes are known,
// because a link may be listed before the node to which it goes.

#include "fabric/topology.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <istream>
#include <unordered_map>
#include <utility>

namespace fabric {

InputError::InputError(const std::string& file, int line, const std::string& message)
    : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + message) {}

namespace {

constexpr int max_ports = 254;
constexpr std::uint64_t max_lid = 0xBFFF;
constexpr std::uint64_t max_lmc = 7;

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_word(char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
           c == '_' || c == '.';
}

std::string quote(std::string_view text) {
    return '"' + std::string(text) + '"';
}

std::string format_guid(std::uint64_t guid) {
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), guid, 16).ptr;
    return "0x" + std::string(digits.data(), end);
}

/// One line of the file, read from left to right. Each call skips the blanks in front of what it
/// reads; what cannot be read ends in an InputError that says what was expected instead.
class LineScanner {
  public:
    LineScanner(const std::string& file, int line, std::string_view text)
        : file_(file), line_(line), rest_(text) {}

    int line() const { return line_; }

    [[noreturn]] void fail(const std::string& message) const {
        throw InputError(file_, line_, message);
    }
    [[noreturn]] void fail_expecting(const std::string& expected) {
        skip_blanks();
        const std::string_view shown = rest_.substr(0, 40);
        fail("found " + (at_end() ? "the end of the line" : quote(shown)) + ", expected " +
             expected);
    }

    /// Nothing but a comment is left.
    bool at_end() { return peek() == '\0' || peek() == '#'; }
    bool exhausted() { return peek() == '\0'; }
    char peek() {
        skip_blanks();
        return rest_.empty() ? '\0' : rest_.front();
    }
    bool take(char c) {
        if (peek() != c)
            return false;
        rest_.remove_prefix(1);
        return true;
    }
    bool take(std::string_view text) {
        skip_blanks();
        if (!rest_.starts_with(text))
            return false;
        rest_.remove_prefix(text.size());
        return true;
    }
    void need(char c, const std::string& where) {
        if (!take(c))
            fail_expecting("'" + std::string(1, c) + "' " + where);
    }
    void need_end(const std::string& after) {
        if (!at_end())
            fail_expecting("nothing more after " + after);
    }

    std::string_view word() {
        skip_blanks();
        return take_front(std::find_if_not(rest_.begin(), rest_.end(), is_word));
    }

    /// Up to the next blank, whatever it is made of.
    std::string_view blob() {
        skip_blanks();
        return take_front(std::find_if(rest_.begin(), rest_.end(), is_blank));
    }

    std::string_view quoted(const std::string& what) {
        if (!take('"'))
            fail_expecting(what + " in quotes");
        const std::size_t end = rest_.find('"');
        if (end == std::string_view::npos)
            fail("the quote before " + quote(rest_.substr(0, 40)) + " is never closed");
        const std::string_view text = rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        return text;
    }
    bool has_closed_quote() { return peek() == '"' && rest_.find('"', 1) != rest_.npos; }

    std::uint64_t decimal(const std::string& what, std::uint64_t low, std::uint64_t high) {
        const std::string_view digits = number_word(what);
        std::uint64_t value = 0;
        if (!parse_whole(digits, 10, value))
            fail(what + " " + quote(digits) + " is not a decimal number");
        if (value < low || value > high)
            fail(what + " " + std::string(digits) + " is outside " + std::to_string(low) + " to " +
                 std::to_string(high));
        return value;
    }

    std::uint64_t hexadecimal(const std::string& what) {
        const std::string_view written = number_word(what);
        std::string_view digits = written;
        if (digits.starts_with("0x") || digits.starts_with("0X"))
            digits.remove_prefix(2);
        std::uint64_t value = 0;
        if (!parse_whole(digits, 16, value))
            fail(what + " " + quote(written) + " is not a 64-bit hexadecimal number");
        return value;
    }

    std::uint64_t guid(const std::string& what) {
        const std::uint64_t value = hexadecimal(what);
        if (value == 0)
            fail(what + " is 0");
        return value;
    }

  private:
    void skip_blanks() {
        while (!rest_.empty() && is_blank(rest_.front()))
            rest_.remove_prefix(1);
    }
    std::string_view take_front(std::string_view::const_iterator end) {
        const auto size = static_cast<std::size_t>(end - rest_.begin());
        const std::string_view front = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return front;
    }
    std::string_view number_word(const std::string& what) {
        const std::string_view digits = word();
        if (digits.empty())
            fail_expecting(what);
        return digits;
    }
    static bool parse_whole(std::string_view digits, int base, std::uint64_t& value) {
        const char* const end = digits.data() + digits.size();
        const auto [rest, error] = std::from_chars(digits.data(), end, value, base);
        return error == std::errc{} && rest == end && !digits.empty();
    }

    const std::string& file_;
    int line_;
    std::string_view rest_;
};

struct Address {
    std::uint16_t lid = 0;
    std::uint8_t lmc = 0;
};

/// What a trailing comment tells. It is meant for people, so all that is not known is passed over;
/// what is known has to be right.
struct Remark {
    bool named = false;
    std::string_view name;
    Address before_name;
    Address after_name;
    std::uint8_t rate = 0;
    std::uint8_t mtu = 0;
};

std::uint8_t mtu_code(LineScanner& line) {
    const std::uint64_t bytes = line.decimal("MTU", 256, 4096);
    for (std::uint8_t code = 1; code <= 5; ++code) {
        if (bytes == 128u << code)
            return code;
    }
    line.fail("MTU " + std::to_string(bytes) + " is none of 256, 512, 1024, 2048, 4096");
}

void read_remark_word(LineScanner& line, Remark& remark) {
    const std::string_view word = line.blob();
    Address& address = remark.named ? remark.after_name : remark.before_name;
    const bool number_follows = is_digit(line.peek());
    if (word == "lid" && number_follows)
        address.lid = static_cast<std::uint16_t>(line.decimal("LID", 0, max_lid));
    else if (word == "lmc" && number_follows)
        address.lmc = static_cast<std::uint8_t>(line.decimal("LMC", 0, max_lmc));
    else if (word == "mtu" && number_follows)
        remark.mtu = mtu_code(line);
    else if (const std::uint8_t rate = parse_rate(word); rate != 0)
        remark.rate = rate;
}

Remark read_remark(LineScanner& line) {
    Remark remark;
    if (!line.take('#'))
        return remark;
    while (!line.exhausted()) {
        if (!remark.named && line.has_closed_quote()) {
            remark.name = line.quoted("a name");
            remark.named = true;
        } else {
            read_remark_word(line, remark);
        }
    }
    return remark;
}

/// A link as its line tells it, with the far end still a name.
struct LinkLine {
    int node = -1;
    int port = 0;
    std::uint64_t guid = 0;
    Address address;
    std::string far_id;
    int far_port = 0;
    std::uint64_t far_guid = 0;
    Address far_address;
    std::uint8_t rate = 0;
    std::uint8_t mtu = 0;
    int line = 0;
};

/// A port with the line that spoke of it.
struct PortNote {
    int node = -1;
    int port = 0;
    int line = 0;
};

class Reader {
  public:
    explicit Reader(std::string file) { topology_.file = std::move(file); }

    Topology read(std::istream& in);

  private:
    void read_line(LineScanner& line);
    void read_heading(LineScanner& line);
    void read_property(std::string_view key, LineScanner& line);
    void read_node(NodeKind kind, LineScanner& line);
    void take_guids(Node& node, LineScanner& line);
    void read_link(LineScanner& line);
    void read_link_options(LineScanner& line, LinkLine& link);

    void connect(const LinkLine& link);
    int find_far_node(const LinkLine& link) const;
    void check_port_free(int node, int port, int far_node, int far_port, int line) const;
    void note_guid(int node, int port, std::uint64_t guid, int line);
    void note_node_guid(int node, int line);
    void note_address(int node, int port, const Address& address, int line);

    void find_origin();
    void check_whole(int last_line) const;
    void check_lids() const;

    [[noreturn]] void fail(int line, const std::string& message) const {
        throw InputError(topology_.file, line, message);
    }
    Node& node_at(int index) { return topology_.nodes[static_cast<std::size_t>(index)]; }
    const Node& node_at(int index) const {
        return topology_.nodes[static_cast<std::size_t>(index)];
    }
    Port& port_at(int node, int port) {
        return node_at(node).ports[static_cast<std::size_t>(port)];
    }
    const Port& port_at(int node, int port) const {
        return node_at(node).ports[static_cast<std::size_t>(port)];
    }
    /// A switch has one GUID and one address for all its ports; they are port 0's.
    int identity_port(int node, int port) const {
        return node_at(node).kind == NodeKind::switch_node ? 0 : port;
    }
    std::string port_text(int node, int port) const {
        return quote(node_at(node).id) + "[" + std::to_string(port) + "]";
    }

    /// GUIDs that stand in front of the record to which they belong.
    struct PendingGuids {
        bool given = false;
        NodeKind kind = NodeKind::adapter;
        std::uint64_t node = 0;
        std::uint64_t port = 0;
        int line = 0;
    };

    Topology topology_;
    PendingGuids pending_;
    std::uint64_t origin_guid_ = 0;  ///< of the port that the dump was made by; 0: not told
    std::array<int, max_ports + 1> listed_{};  ///< lines of the ports of the record being read
    std::vector<LinkLine> links_;
    std::unordered_map<std::string, int> ids_;
    std::unordered_map<std::uint64_t, int> node_guids_;
    std::unordered_map<std::uint64_t, PortNote> port_guids_;
    std::vector<PortNote> addressed_;  ///< ports that have a LID, in the order of the file
};

Topology Reader::read(std::istream& in) {
    std::string text;
    int number = 0;
    while (std::getline(in, text)) {
        LineScanner line(topology_.file, ++number, text);
        read_line(line);
    }
    if (in.bad())
        fail(0, "cannot be read");
    check_whole(std::max(number, 1));
    for (const LinkLine& link : links_)
        connect(link);
    check_lids();
    fill_missing(topology_);
    find_origin();
    return std::move(topology_);
}

// --- Lines -------------------------------------------------------------------------------------

struct KindWord {
    std::string_view word;
    NodeKind kind;
};
constexpr std::array<KindWord, 5> kind_words{{{"Switch", NodeKind::switch_node},
                                              {"Ca", NodeKind::adapter},
                                              {"Hca", NodeKind::adapter},
                                              {"Rt", NodeKind::router},
                                              {"Router", NodeKind::router}}};
constexpr std::array<KindWord, 4> guid_words{{{"switchguid", NodeKind::switch_node},
                                              {"caguid", NodeKind::adapter},
                                              {"hcaguid", NodeKind::adapter},
                                              {"rtguid", NodeKind::router}}};
constexpr std::array<std::string_view, 3> number_words{"vendid", "devid", "sysimgguid"};
constexpr std::array<std::string_view, 2> text_words{"linkwidth", "linkspeed"};
constexpr std::array<std::string_view, 3> port_report_words{"CA", "SW", "RT"};

template <typename Words>
const KindWord* find_kind(const Words& words, std::string_view word) {
    const auto found = std::find_if(words.begin(), words.end(),
                                    [&](const KindWord& entry) { return entry.word == word; });
    return found == words.end() ? nullptr : &*found;
}

template <typename Words>
bool contains(const Words& words, std::string_view word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

/// ibnetdiscover prints other reports too, from which no topology can be made.
void refuse_report(std::string_view word, LineScanner& line) {
    constexpr const char* instead =
        "; what it prints without that option is a topology, which this is not";
    if (find_kind(kind_words, word) && line.peek() == ':')
        line.fail(std::string("this is a list of nodes, as ibnetdiscover -l, -H or -S prints it") +
                  instead);
    if (contains(port_report_words, word) && is_digit(line.peek()))
        line.fail(std::string("this is a list of ports, as ibnetdiscover -p prints it") + instead);
}

/// ibnetdiscover says where it ran in a comment, which is no more than that in other files.
void Reader::read_heading(LineScanner& line) {
    if (!line.take('#') || !line.take("Initiated from node ") || line.word().empty() ||
        !line.take("port "))
        return;
    const std::string_view digits = line.word();
    std::from_chars(digits.data(), digits.data() + digits.size(), origin_guid_, 16);
}

void Reader::read_line(LineScanner& line) {
    if (line.at_end())
        return read_heading(line);
    if (line.peek() == '[')
        return read_link(line);
    LineScanner start = line;
    const std::string_view word = line.word();
    if (!word.empty() && line.take('='))
        return read_property(word, line);
    // What ibnetdiscover -s tells about its search, in front of what it found.
    if (word == "DR" && topology_.nodes.empty())
        return;
    refuse_report(word, line);
    // Headings of a dump that is grouped by chassis.
    if (word == "Chassis" || word == "Non-Chassis")
        return;
    const KindWord* const kind = find_kind(kind_words, word);
    if (kind == nullptr)
        start.fail_expecting(
            "a node (Switch, Ca, Hca or Rt), a link ([port] \"node\"[port]) or a GUID line");
    read_node(kind->kind, line);
}

void Reader::read_property(std::string_view key, LineScanner& line) {
    const std::string name(key);
    if (const KindWord* const found = find_kind(guid_words, key)) {
        if (pending_.given)
            line.fail("a second node GUID, where line " + std::to_string(pending_.line) +
                      " gave one and no node came between");
        pending_ = {true, found->kind, line.guid(name), 0, line.line()};
        if (line.take('(')) {
            pending_.port = line.guid("port GUID");
            line.need(')', "after the port GUID");
        }
    } else if (contains(number_words, key)) {
        line.hexadecimal(name);
    } else if (contains(text_words, key)) {
        line.blob();
    } else {
        line.fail("found " + quote(key) +
                  "=, expected vendid, devid, sysimgguid, switchguid, caguid or rtguid");
    }
    line.need_end(name);
}

/// The GUID that an id such as "H-0008f10403960558" is made of, 0 when it is not of that form.
std::uint64_t guid_in_id(std::string_view id) {
    if (id.size() != 18 || id[1] != '-' || std::string_view("HSR").find(id[0]) == id.npos)
        return 0;
    std::uint64_t guid = 0;
    const char* const end = id.data() + id.size();
    return std::from_chars(id.data() + 2, end, guid, 16).ptr == end ? guid : 0;
}

void Reader::read_node(NodeKind kind, LineScanner& line) {
    Node node;
    node.kind = kind;
    node.line = line.line();
    const std::uint64_t ports = line.decimal("number of ports", 1, max_ports);
    node.ports.resize(ports + 1);
    node.id = line.quoted("the node's id");
    if (node.id.empty())
        line.fail("the node's id is empty");
    line.need_end("the node's id");
    const Remark remark = read_remark(line);
    node.name = remark.name.empty() ? node.id : std::string(remark.name);

    const int index = static_cast<int>(topology_.nodes.size());
    const auto [place, is_new] = ids_.emplace(node.id, index);
    if (!is_new)
        line.fail("node " + quote(node.id) + " is described twice, first in line " +
                  std::to_string(node_at(place->second).line));
    topology_.nodes.push_back(std::move(node));
    listed_.fill(0);
    take_guids(topology_.nodes.back(), line);
    if (kind == NodeKind::switch_node)
        note_address(index, 0, remark.named ? remark.after_name : remark.before_name, line.line());
}

void Reader::take_guids(Node& node, LineScanner& line) {
    const PendingGuids guids = std::exchange(pending_, {});
    if (guids.given && guids.kind != node.kind)
        line.fail("the GUID in line " + std::to_string(guids.line) +
                  " is one of another kind of node than " + quote(node.id));
    const int index = static_cast<int>(topology_.nodes.size()) - 1;
    const int where = guids.given ? guids.line : line.line();
    node.guid = guids.given ? guids.node : guid_in_id(node.id);
    if (node.guid != 0)
        note_node_guid(index, where);
    note_guid(index, node.kind == NodeKind::switch_node ? 0 : 1, guids.port, where);
}

/// After a port number in brackets there may stand the port's GUID in parentheses and its number
/// on the outside of a chassis, as in "[1][ext 5]".
std::uint64_t read_port_extras(LineScanner& line) {
    std::uint64_t guid = 0;
    for (;;) {
        if (line.take('(')) {
            guid = line.guid("port GUID");
            line.need(')', "after the port GUID");
        } else if (line.take("[ext")) {
            line.decimal("external port number", 0, 255);
            line.need(']', "after the external port number");
        } else {
            return guid;
        }
    }
}

int read_port_number(LineScanner& line) {
    line.need('[', "and a port number");
    const auto port = static_cast<int>(line.decimal("port number", 1, max_ports));
    line.need(']', "after the port number");
    return port;
}

void Reader::read_link(LineScanner& line) {
    LinkLine link;
    link.line = line.line();
    link.node = static_cast<int>(topology_.nodes.size()) - 1;
    if (link.node < 0)
        line.fail("found a link, expected a node before it");
    link.port = read_port_number(line);
    const Node& node = node_at(link.node);
    if (link.port >= static_cast<int>(node.ports.size()))
        line.fail("node " + quote(node.id) + " has ports 1 to " +
                  std::to_string(node.ports.size() - 1) + ", not " + std::to_string(link.port));
    int& listed = listed_[static_cast<std::size_t>(link.port)];
    if (listed != 0)
        line.fail("port " + std::to_string(link.port) + " of " + quote(node.id) +
                  " is listed twice, first in line " + std::to_string(listed));
    listed = link.line;
    link.guid = read_port_extras(line);
    link.far_id = line.quoted("the id of the node at the other end");
    link.far_port = read_port_number(line);
    link.far_guid = read_port_extras(line);
    read_link_options(line, link);
    const Remark remark = read_remark(line);
    // A switch's line speaks of the far end only; an adapter's own address comes before the name.
    const bool of_switch = node.kind == NodeKind::switch_node;
    link.address = of_switch ? Address{} : remark.before_name;
    link.far_address = of_switch && !remark.named ? remark.before_name : remark.after_name;
    link.rate = remark.rate != 0 ? remark.rate : link.rate;
    link.mtu = remark.mtu;
    links_.push_back(std::move(link));
}

/// Options in front of the comment: "w=" gives the number of lanes, "s=" the speed is passed over.
void Reader::read_link_options(LineScanner& line, LinkLine& link) {
    while (!line.at_end()) {
        if (line.take("w=")) {
            const std::string_view lanes = line.word();
            link.rate = parse_rate(std::string(lanes) + "xSDR");
            if (link.rate == 0)
                line.fail("width " + quote(lanes) + " is none of 1, 2, 4, 8, 12");
        } else if (line.take("s=")) {
            line.word();
        } else {
            line.fail_expecting("a comment or the end of the line after the link");
        }
    }
}

// --- Links -------------------------------------------------------------------------------------

void Reader::connect(const LinkLine& link) {
    const int far_node = find_far_node(link);
    if (far_node == link.node && link.far_port == link.port)
        fail(link.line, "port " + port_text(link.node, link.port) + " is linked to itself");
    check_port_free(link.node, link.port, far_node, link.far_port, link.line);
    check_port_free(far_node, link.far_port, link.node, link.port, link.line);

    Port& near_end = port_at(link.node, link.port);
    Port& far_end = port_at(far_node, link.far_port);
    near_end.remote_node = far_node;
    near_end.remote_port = link.far_port;
    near_end.line = link.line;
    far_end.remote_node = link.node;
    far_end.remote_port = link.port;
    if (!far_end.linked)
        far_end.line = link.line;
    near_end.linked = far_end.linked = true;
    near_end.rate = far_end.rate = slower_rate(near_end.rate, link.rate);
    near_end.mtu = far_end.mtu = smaller_mtu(near_end.mtu, link.mtu);

    note_guid(link.node, link.port, link.guid, link.line);
    note_guid(far_node, link.far_port, link.far_guid, link.line);
    note_address(link.node, link.port, link.address, link.line);
    note_address(far_node, link.far_port, link.far_address, link.line);
}

int Reader::find_far_node(const LinkLine& link) const {
    const auto found = ids_.find(link.far_id);
    if (found == ids_.end())
        fail(link.line,
             "the link goes to " + quote(link.far_id) + ", a node that is not described");
    const Node& node = node_at(found->second);
    if (link.far_port >= static_cast<int>(node.ports.size()))
        fail(link.line, "the link goes to port " + std::to_string(link.far_port) + " of " +
                            quote(node.id) + ", which has ports 1 to " +
                            std::to_string(node.ports.size() - 1));
    return found->second;
}

void Reader::check_port_free(int node, int port, int far_node, int far_port, int line) const {
    const Port& end = port_at(node, port);
    if (!end.linked || (end.remote_node == far_node && end.remote_port == far_port))
        return;
    fail(line, "port " + port_text(node, port) + " is linked to " + port_text(far_node, far_port) +
                   " here, but to " + port_text(end.remote_node, end.remote_port) + " in line " +
                   std::to_string(end.line));
}

void Reader::note_node_guid(int node, int line) {
    const auto [place, is_new] = node_guids_.emplace(node_at(node).guid, node);
    if (!is_new)
        fail(line, "node GUID " + format_guid(node_at(node).guid) + " is given to " +
                       quote(node_at(node).id) + " here, but is that of " +
                       quote(node_at(place->second).id));
}

void Reader::note_guid(int node, int port, std::uint64_t guid, int line) {
    if (guid == 0)
        return;
    port = identity_port(node, port);
    Port& owner = port_at(node, port);
    if (owner.guid != 0 && owner.guid != guid)
        fail(line, "port " + port_text(node, port) + " has GUID " + format_guid(guid) +
                       " here, but " + format_guid(owner.guid) + " in line " +
                       std::to_string(port_guids_.at(owner.guid).line));
    owner.guid = guid;
    const auto [place, is_new] = port_guids_.emplace(guid, PortNote{node, port, line});
    const PortNote& holder = place->second;
    if (!is_new && (holder.node != node || holder.port != port))
        fail(line, "port GUID " + format_guid(guid) + " is given to " + port_text(node, port) +
                       " here, but to " + port_text(holder.node, holder.port) + " in line " +
                       std::to_string(holder.line));
}

void Reader::note_address(int node, int port, const Address& address, int line) {
    if (address.lid == 0)
        return;
    port = identity_port(node, port);
    Port& owner = port_at(node, port);
    if (owner.lid != 0 && owner.lid != address.lid)
        fail(line, "port " + port_text(node, port) + " has LID " + std::to_string(address.lid) +
                       " here, but LID " + std::to_string(owner.lid) + " elsewhere");
    if (owner.lid == 0)
        addressed_.push_back({node, port, line});
    owner.lid = address.lid;
    owner.lmc = std::max(owner.lmc, address.lmc);
}

// --- The whole fabric --------------------------------------------------------------------------

void Reader::check_whole(int last_line) const {
    if (pending_.given)
        fail(pending_.line, "found a GUID, expected a node after it");
    if (topology_.nodes.empty())
        fail(last_line, "the file describes no node, expected at least one adapter (Ca or Hca)");
    const bool has_adapter =
        std::any_of(topology_.nodes.begin(), topology_.nodes.end(),
                    [](const Node& node) { return node.kind == NodeKind::adapter; });
    if (!has_adapter)
        fail(last_line, "the fabric has no adapter, expected at least one (Ca or Hca)");
}

void Reader::find_origin() {
    for (std::size_t i = 0; origin_guid_ != 0 && i < topology_.nodes.size(); ++i) {
        const std::vector<Port>& ports = topology_.nodes[i].ports;
        const auto found = std::find_if(ports.begin(), ports.end(), [&](const Port& port) {
            return port.guid == origin_guid_;
        });
        if (found == ports.end())
            continue;
        topology_.origin = static_cast<int>(i);
        topology_.origin_port = static_cast<int>(found - ports.begin());
        return;
    }
}

/// A port answers to all LIDs that differ from its own in the last LMC bits.
void Reader::check_lids() const {
    std::vector<const PortNote*> owners(max_lid + 1, nullptr);
    for (const PortNote& note : addressed_) {
        const Port& port = port_at(note.node, note.port);
        const std::size_t end = port.lid + (std::size_t{1} << port.lmc);
        if (end > owners.size())
            fail(note.line, "LID " + std::to_string(port.lid) + " with LMC " +
                                std::to_string(port.lmc) + " reaches beyond " +
                                std::to_string(max_lid));
        for (std::size_t lid = port.lid; lid < end; ++lid) {
            if (owners[lid] != nullptr)
                fail(note.line, "LID " + std::to_string(lid) + " is given to " +
                                    port_text(note.node, note.port) + " here, but to " +
                                    port_text(owners[lid]->node, owners[lid]->port) + " in line " +
                                    std::to_string(owners[lid]->line));
            owners[lid] = &note;
        }
    }
}

}  // namespace

Topology read_topology(std::istream& in, const std::string& file) {
    return Reader(file).read(in);
}

Topology read_topology(const std::string& path) {
    std::ifstream in(path);
    if (!in)
        throw InputError(path, 0, "cannot be opened");
    return read_topology(in, path);
}

}  // namespace fabric

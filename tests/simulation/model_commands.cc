// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The model's reading of what is written to the control file.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/jiffies.h"
#include "tests/simulation/model.h"

namespace simulation {
namespace {

constexpr std::size_t most_bytes = 4096;
constexpr std::size_t most_words = 30;
constexpr std::size_t longest_word = 40;
constexpr std::uint32_t not_given = 0xFFFFFFFF;

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r') || c == '\xA0';
}

/* -1 for what is no digit. */
int digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

unsigned long read_digits(std::string_view word, int base) {
    unsigned long value = 0;
    for (const char c : word) {
        if (digit(c) < 0 || digit(c) >= base)
            break;
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit(c));
    }
    return value;
}

unsigned long number(std::string_view word) {
    if (word.size() > 2 && word[0] == '0' && word[1] == 'x' && digit(word[2]) >= 0)
        return read_digits(word.substr(2), 16);
    return read_digits(word, word.substr(0, 1) == "0" ? 8 : 10);
}

std::optional<std::uint32_t> address(std::string_view word) {
    std::uint32_t ip = 0;
    for (int i = 0; i < 4; ++i) {
        const std::size_t dot = word.find('.');
        if (i < 3 && dot == word.npos)
            return {};
        const auto value = static_cast<std::uint32_t>(read_digits(word.substr(0, dot), 10));
        if (value == 0xFFFFFFFF)
            return {};
        ip |= (value & 0xFF) << 8 * i;
        word = dot == word.npos ? "" : word.substr(dot + 1);
    }
    return ip;
}

std::optional<gx_gid_t> gid_of(std::string_view word) {
    if (word.size() < 3 || word.size() > 34 || word.substr(0, 2) != "0x")
        return {};
    gx_gid_t gid{};
    for (std::size_t i = 0; i < word.size() - 2; ++i) {
        const int value = digit(word[word.size() - 1 - i]);
        if (value < 0)
            return {};
        gid.raw[i / 2] |= static_cast<std::uint8_t>(i % 2 ? value << 4 : value);
    }
    return gid;
}

/* The fields of a path, in the order of the words. */
struct Field {
    unsigned long (*get)(const ib_path_record_v2_t&);
    void (*set)(ib_path_record_v2_t&, unsigned long);
    bool must_not_be_zero;
};
#define FIELD(name, must)                                                             \
    Field {                                                                           \
        [](const ib_path_record_v2_t& path) -> unsigned long { return path.name; },   \
            [](ib_path_record_v2_t& path, unsigned long to) { path.name = to; }, must \
    }
constexpr Field fields[] = {
    FIELD(dlid, true),
    FIELD(slid, true),
    FIELD(raw_traffic, false),
    FIELD(flow_label, false),
    FIELD(hop_limut, false),
    FIELD(traffic_class, false),
    FIELD(pkey, true),
    FIELD(sl, false),
    FIELD(mtu_selector, false),
    FIELD(mtu, true),
    FIELD(rate_selector, false),
    FIELD(rate, true),
    FIELD(pkt_life_time_selector, false),
    FIELD(pkt_life_time, false),
};
#undef FIELD

}  // namespace

struct Model::Words : std::vector<std::string> {
    explicit Words(std::string_view bytes) {
        bytes = bytes.substr(0, most_bytes);
        std::string word;
        const auto end_word = [&] {
            push_back(word);
            word.clear();
        };
        for (std::size_t i = 0; i < bytes.size() && bytes[i] != '\0' && size() < most_words; ++i) {
            if (is_blank(bytes[i])) {
                if (!word.empty())
                    end_word();
                continue;
            }
            if (word.size() == longest_word)
                end_word();
            if (size() < most_words)
                word += bytes[i];
        }
        // A last word counts when the text ends with it, also one that a zero byte has cut off.
        if (size() < most_words && !bytes.empty() && !is_blank(bytes.back()))
            end_word();
    }
    std::string_view word(std::size_t index) const {
        return index < size() ? std::string_view((*this)[index]) : std::string_view();
    }
    /// A number that may be missing.
    std::uint32_t optional(std::size_t index) const {
        return index < size() ? static_cast<std::uint32_t>(number(word(index))) : not_given;
    }
};

void Model::command(const std::string& bytes) {
    const Words words(bytes);
    const std::string_view name = words.word(0);
    const auto set_switch = [&](bool& to) {
        if (words.word(1) == "on" || words.word(1) == "off")
            to = words.word(1) == "on";
    };
    const auto ip = address(words.word(1));
    if (name == "halt") {
        counts_.note(Count::halts);
        now_.is.halted = true;
        arp_timer();
        sa_timer();
    } else if (name == "enable" || name == "disable") {
        now_.is.enabled = name == "enable";
    } else if (name == "sa_queries") {
        set_switch(now_.is.sa_queries);
    } else if (name == "statics_inv") {
        set_switch(now_.is.statics_inv);
    } else if (name == "add" || name == "addibarp") {
        add_static(words, name == "addibarp");
    } else if (name == "addpath") {
        add_path(words);
    } else if (name == "setstaticpath") {
        set_static_path(words);
    } else if (name == "remove") {
        if (words.size() == 2 && ip)
            remove(*ip);
    } else if (name == "invalidate") {
        const auto paths = static_cast<int>(number(words.word(2)));
        tarv_arp_data_t record;
        if (words.size() == 3 && ip && paths >= 0 && paths <= 2)
            ask({*ip, *ip, static_cast<tarv_paths_t>(paths), administrator, true, true}, record);
    } else if (name == "flush") {
        remove_all();
    } else if (name == "show" || name == "show_paths") {
        Cached* const entry = words.size() == 2 && ip ? find(*ip) : nullptr;
        if (entry)
            entry->stamp = jiffies();
    } else if (name == "setlocalgids") {
        set_local_gids(words);
    } else if (name == "set_retry_cnt") {
        const auto count = static_cast<int>(number(words.word(1)));
        if (words.size() == 2 && count != 0 && count <= 10)
            now_.is.retries = count;
    }
}

void Model::add_static(const Words& words, bool by_gid) {
    const auto src = address(words.word(1));
    const auto dst = address(words.word(2));
    const auto gid = gid_of(words.word(3));
    const bool port_given = by_gid && words.size() >= 8;
    if (words.size() < 4 || !src || !dst || (by_gid && !gid) ||
        (port_given && words.optional(7) == 0))
        return;
    if (Cached* const entry = find(*dst)) {
        entry->stamp = jiffies();
        return;
    }
    tarv_arp_data_t record{};
    record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_LOCAL_PORT | TARV_MASK_STATIC;
    record.src_ip = *src;
    record.dst_ip = *dst;
    record.local_port_num = port_given ? words.optional(7) : 1;
    if (by_gid) {
        record.gid = *gid;
        record.mask |= TARV_MASK_GID;
    }
    const std::uint32_t lid = by_gid ? words.optional(4) : words.optional(3) & 0xFFFF;
    const std::uint32_t qpn = words.optional(by_gid ? 5 : 4);
    const std::uint32_t qkey = words.optional(by_gid ? 6 : 5);
    if (lid != not_given) {
        record.lid = static_cast<gx_lid_t>(lid);
        record.mask |= TARV_MASK_LID;
    }
    if (qpn != not_given) {
        record.qpn = qpn;
        record.mask |= TARV_MASK_QPN;
    }
    if (qkey != not_given) {
        record.qkey = qkey;
        record.mask |= TARV_MASK_QKEY;
    }
    add(record);
}

/* False at the first field that is refused; those before it, and it, have been set. */
bool Model::read_path_fields(const Words& words, std::size_t first_word, std::size_t first_field,
                             ib_path_record_v2_t& path, const ib_path_record_v2_t& repeated) {
    for (std::size_t i = first_field; i < std::size(fields); ++i) {
        const std::string_view word = words.word(first_word + i - first_field);
        if (word.substr(0, 1) == "*") {
            fields[i].set(path, fields[i].get(repeated));
            continue;
        }
        fields[i].set(path, number(word));
        if (fields[i].must_not_be_zero && fields[i].get(path) == 0)
            return false;
    }
    return true;
}

void Model::add_path(const Words& words) {
    const auto ip = address(words.word(1));
    const char which = words.word(2).empty() ? '\0' : words.word(2)[0];
    const bool primary = which == 'p' || which == 'P';
    if (words.size() != 19 || !ip || (!primary && which != 's' && which != 'S'))
        return;
    ib_path_record_v2_t path{};
    path.numb_path = 1;
    const auto read_gid = [&](std::size_t word, const gx_gid_t& repeated) {
        return words.word(word).substr(0, 1) == "*" ? std::optional(repeated)
                                                    : gid_of(words.word(word));
    };
    const auto dgid = read_gid(3, last_path_.dgid);
    const auto sgid = read_gid(4, last_path_.sgid);
    if (!dgid || !sgid)
        return;
    path.dgid = *dgid;
    path.sgid = *sgid;
    if (!read_path_fields(words, 5, 0, path, last_path_))
        return;
    last_path_ = path;
    ++paths_read_;
    Cached* const entry = find(*ip);
    if (!entry)
        return;
    tarv_arp_data_t& record = entry->record;
    record.paths[primary ? 0 : 1] = path;
    record.mask |= primary ? TARV_MASK_PRIMARY_PATH : TARV_MASK_SECONDARY_PATH;
    if (record.paths_count == (primary ? 0 : 1))
        ++record.paths_count;
    entry->stamp = jiffies();
}

void Model::set_static_path(const Words& words) {
    if (words.size() == 13)
        read_path_fields(words, 1, 2, now_.static_path, ib_path_record_v2_t(now_.static_path));
}

void Model::set_local_gids(const Words& words) {
    const auto first = gid_of(words.word(1));
    const auto second = gid_of(words.word(2));
    if ((words.size() != 2 && words.size() != 3) || !first || (words.size() == 3 && !second))
        return;
    now_.ports[0].gid = *first;
    if (second)
        now_.ports[1].gid = *second;
}

}  // namespace simulation

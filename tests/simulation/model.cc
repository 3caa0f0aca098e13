// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The model's requests: what is answered at once, who waits for what, and who is called back.
#include "tests/simulation/model.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "platform/jiffies.h"

namespace soak {
namespace {

constexpr int most_identical = 3;   // that may wait before further ones stop asking
constexpr int looked_at_pkeys = 5;  // of a local port's table
constexpr std::uint32_t arp_patience = 1000;
constexpr std::uint32_t sa_patience = 3000;

bool names_paths(tarv_paths_t paths) {
    return paths == tarv_paths_primary || paths == tarv_paths_both;
}

bool has_paths(std::uint32_t mask, tarv_paths_t wanted) {
    if (wanted == tarv_paths_none)
        return true;
    const std::uint32_t needed = wanted == tarv_paths_primary ? 0x80 : 0x180;
    return names_paths(wanted) && (mask & needed) == needed;
}

int identical(const Model::Requests& list, std::uint32_t ip, tarv_paths_t paths) {
    return static_cast<int>(std::count_if(list.begin(), list.end(), [&](const Waiting& other) {
        return other.ip == ip && other.paths == paths;
    }));
}

std::uint32_t now32() {
    return static_cast<std::uint32_t>(jiffies());
}

/* Big-endian bytes as a number. */
std::uint32_t number_at(const std::uint8_t* at, int size) {
    std::uint32_t value = 0;
    for (int i = 0; i < size; ++i)
        value = value << 8 | at[i];
    return value;
}

gx_gid_t gid_at(const std::uint8_t* at) {
    gx_gid_t gid;
    std::reverse_copy(at, at + sizeof gid.raw, gid.raw);
    return gid;
}

/* A PathRecord off the wire, in host form. */
ib_path_record_v2_t path_at(const std::uint8_t* at) {
    ib_path_record_v2_t path{};
    path.dgid = gid_at(at + 8);
    path.sgid = gid_at(at + 24);
    path.dlid = static_cast<std::uint16_t>(number_at(at + 40, 2));
    path.slid = static_cast<std::uint16_t>(number_at(at + 42, 2));
    path.flow_word = number_at(at + 44, 4) & 0x8FFFFFFF;
    path.traffic_class = at[48];
    path.numb_path = 1;
    path.pkey = static_cast<std::uint16_t>(number_at(at + 50, 2));
    path.sl_word = number_at(at + 52, 2) & 0xF;
    std::memcpy(reinterpret_cast<std::uint8_t*>(&path) + 54, at + 54, 3);
    return path;
}

}  // namespace

std::vector<Reply> Model::take_replies() {
    return std::exchange(replies_, {});
}

void Model::load(unsigned long timeout_seconds) {
    table_ = {};
    arp_.clear();
    sa_.clear();
    ports_ = {};
    port_count_ = 0;
    static_path_ = {};
    static_path_.numb_path = 1;
    static_path_.pkey = 0xFFFF;
    static_path_.mtu = 3;
    last_path_ = {};
    timeout_ = timeout_seconds * 1000;
    halted_ = enabled_ = sa_queries_ = attached_ = false;
    statics_inv_ = media_reset_ = true;
    retry_limit_ = 3;
}

void Model::unload() {
    table_ = {};
    arp_.clear();
    sa_.clear();
    ports_ = {};
}

tarv_stat_t Model::ask(const Question& question, tarv_arp_data_t& record) {
    if (halted_) {
        tally_.note(Outcome::refused_halted);
        return tarv_stat_error;
    }
    return decide(question, 0, record);
}

tarv_stat_t Model::decide(const Question& question, int retries, tarv_arp_data_t& record) {
    if (question.invalidate)
        remove(question.ip);
    Cached* const entry = find(question.ip);
    if (!entry) {
        if (question.callback)
            return ask_arp(question, retries);
        tally_.note(Outcome::misses);
        return tarv_stat_not_found;
    }
    entry->stamp = jiffies();
    record = entry->record;
    const bool complete = !names_paths(question.paths) || has_paths(record.mask, question.paths);
    if (complete || (question.callback && !sa_queries_)) {
        tally_.note(names_paths(question.paths) && complete ? Outcome::hits_with_paths
                                                            : Outcome::hits);
        return tarv_stat_ok;
    }
    if (!question.callback) {
        tally_.note(Outcome::misses);
        return tarv_stat_not_found;
    }
    return ask_sa(question, retries, record);
}

tarv_stat_t Model::ask_arp(const Question& question, int retries) {
    if (!attached_) {
        tally_.note(Outcome::no_driver);
        return tarv_stat_error;
    }
    const bool asks = identical(arp_, question.ip, question.paths) <= most_identical;
    arp_.push_back(
        {question.ip, question.from, question.paths, question.context, true, retries, now32(), {}});
    if (!asks) {
        tally_.note(Outcome::held_back);
        return tarv_stat_pending;
    }
    bool sent = false;
    for (int port = 1; port <= fabric_.adapter().ports(); ++port)
        sent |= fabric_.adapter().port(port).up;
    if (!sent) {
        tally_.note(Outcome::arp_failed);
        arp_.back().callback = false;
        return tarv_stat_error;
    }
    tally_.note(Outcome::arp_asked);
    media_reset_ = false;
    return tarv_stat_pending;
}

tarv_stat_t Model::ask_sa(const Question& question, int retries, const tarv_arp_data_t& cached) {
    const bool asks = question.paths != tarv_paths_primary ||
                      identical(sa_, question.ip, question.paths) <= most_identical;
    sa_.push_back({question.ip, question.from, question.paths, question.context, true, retries,
                   now32(), cached.gid});
    if (!asks) {
        tally_.note(Outcome::held_back);
        return tarv_stat_pending;
    }
    if (query(cached.local_port_num))
        return tarv_stat_pending;
    sa_.back().callback = false;
    return tarv_stat_error;
}

/* Whether a query goes out on that port. */
bool Model::query(std::uint32_t port) {
    if (port < 1 || port > ports_.size() || !ports_[port - 1].valid ||
        std::exchange(empty_hand_, false)) {
        tally_.note(Outcome::sa_failed);
        return false;
    }
    tally_.note(Outcome::sa_asked);
    return true;
}

void Model::reply(const Waiting& waiting, tarv_stat_t status, const tarv_arp_data_t* record) {
    if (status == tarv_stat_timeout)
        tally_.note(Outcome::timed_out);
    if (!waiting.callback || waiting.context == administrator)
        return;
    replies_.push_back({waiting.context, status, {}});
    if (record)
        replies_.back().record = *record;
}

void Model::reissue(const Waiting& waiting) {
    if (waiting.retries >= retry_limit_ || halted_)
        return reply(waiting, tarv_stat_timeout, nullptr);
    tally_.note(Outcome::reissued);
    const Question question = {waiting.ip,      waiting.from,     waiting.paths,
                               waiting.context, waiting.callback, false};
    tarv_arp_data_t record;
    const tarv_stat_t status = decide(question, waiting.retries + 1, record);
    if (status != tarv_stat_pending)
        reply(waiting, status, status == tarv_stat_ok ? &record : nullptr);
}

/* All that is due leaves the list first; then each gets another try or its last word. */
void Model::time_out(Requests& list, std::uint32_t limit, bool arp) {
    const auto is_due = [&](const Waiting& waiting) {
        return halted_ || now32() - waiting.stamp >= limit;
    };
    Requests due;
    std::copy_if(list.begin(), list.end(), std::back_inserter(due), is_due);
    std::erase_if(list, is_due);
    if (arp && !due.empty())
        media_reset_ = true;
    for (const Waiting& waiting : due)
        reissue(waiting);
}

void Model::arp_timer() {
    time_out(arp_, arp_patience, true);
}

void Model::sa_timer() {
    time_out(sa_, sa_patience, false);
}

tarv_stat_t Model::arp(const tarv_arp_data_t& packet) {
    if (!enabled_)
        return tarv_stat_ok;
    if (packet.arp_operation != TARV_ARP_OP_REQUEST && packet.arp_operation != TARV_ARP_OP_REPLY)
        return tarv_stat_error;
    tarv_arp_data_t record = packet;
    std::swap(record.src_ip, record.dst_ip);
    if (!sa_queries_)
        give_static_path(record);
    if (Cached* const entry = find_replaceable(record.dst_ip)) {
        *entry = {record, jiffies()};
        tally_.note(Outcome::updated);
        return tarv_stat_ok;
    }
    if (Cached* const entry = find(record.dst_ip)) {
        entry->stamp = jiffies();
        tally_.note(Outcome::kept_static);
        complete(tarv_arp_data_t(entry->record), packet);
        return tarv_stat_ok;
    }
    record.mask |= TARV_MASK_SRC_IP;
    add(record);
    tally_.note(Outcome::learned);
    complete(record, packet);
    return tarv_stat_ok;
}

void Model::complete(const tarv_arp_data_t& record, const tarv_arp_data_t& packet) {
    const auto known_by = [&](std::uint32_t bit) -> const tarv_arp_data_t& {
        return record.mask & bit ? record : packet;
    };
    const auto is_for = [&](const Waiting& waiting) { return waiting.ip == record.dst_ip; };
    Requests taken;
    std::copy_if(arp_.begin(), arp_.end(), std::back_inserter(taken), is_for);
    std::erase_if(arp_, is_for);
    for (Waiting& waiting : taken) {
        const bool is_static = record.mask & TARV_MASK_STATIC;
        if (waiting.paths == tarv_paths_none || !sa_queries_ ||
            (is_static && has_paths(record.mask, waiting.paths))) {
            reply(waiting, tarv_stat_ok, &record);
            continue;
        }
        if (!query(known_by(TARV_MASK_LOCAL_PORT).local_port_num)) {
            reply(waiting, tarv_stat_error, nullptr);
            continue;
        }
        waiting.dgid = known_by(TARV_MASK_GID).gid;
        waiting.stamp = now32();
        sa_.push_back(waiting);
    }
}

void Model::give_static_path(tarv_arp_data_t& record) {
    rewrite_pkeys(record.dst_ip, &static_path_, 1);
    if (record.mask & TARV_MASK_PRIMARY_PATH)
        return;
    tally_.note(Outcome::static_paths);
    ib_path_record_v2_t& path = record.paths[0];
    path = static_path_;
    path.dlid = record.lid;
    path.dgid = record.gid;
    const auto port = static_cast<int>(record.local_port_num);
    if (fabric_.adapter().has_port(port)) {
        const fabric::EndPort end = fabric_.adapter().port(port);
        path.slid = end.lid;
        path.sgid = fabric::held(end.gid);
    }
    record.mask |= TARV_MASK_PRIMARY_PATH;
}

/* The P_Key of the interface that serves the address; for our own address that of the local port
 * at which each path starts. The interface serves 10.0.0.0/24. */
void Model::rewrite_pkeys(std::uint32_t ip, ib_path_record_v2_t* paths, int count) {
    const std::uint32_t ours = fabric_.our_host().ip;
    if (!attached_ || ((ip ^ ours) & 0x00FFFFFF) != 0)
        return;
    std::uint16_t pkey = fabric_.ipoib().pkey();
    for (int i = 0; i < std::min(count, 2); ++i) {
        if (ip == ours && !local_pkey(paths[i].sgid, pkey))
            return;
        paths[i].pkey = pkey;
    }
}

bool Model::local_pkey(const gx_gid_t& sgid, std::uint16_t& pkey) {
    const auto end = fabric_.subnet().by_gid(fabric::wire(sgid));
    if (!end || end->at.node != fabric_.adapter().node())
        return false;
    tally_.note(Outcome::own_pkeys);
    const std::vector<std::uint16_t> keys = fabric_.subnet().pkeys(end->at);
    for (std::size_t i = 0; i < std::min<std::size_t>(keys.size(), looked_at_pkeys); ++i) {
        pkey = keys[i];
        if (pkey & 0x8000)
            return true;
    }
    return false;
}

/* The number of paths that the answer brings us; 0 when it is to be dropped. */
int Model::read_answer(const Answer& answer, ib_path_record_v2_t* paths) const {
    std::uint16_t attribute;
    std::memcpy(&attribute, answer.mad + 16, sizeof attribute);
    if (answer.mad[0] != 1 || answer.mad[1] != 3 || answer.mad[2] != 2 || attribute != 0x003A ||
        number_at(answer.mad + 4, 2) != 0 || answer.size < 20 + 64)
        return 0;
    const std::uint8_t* const records = answer.block ? answer.block + 20 : answer.mad + 56;
    const int count = std::min(TARV_MAX_PATHS, (answer.size - 20) / 64);
    for (int i = 0; i < count; ++i)
        paths[i] = path_at(records + i * 64);
    const auto begins_here = [&](const Port& port) { return port.gid == paths[0].sgid; };
    return std::any_of(ports_.begin(), ports_.begin() + port_count_, begins_here) ? count : 0;
}

void Model::answer(const Answer& answer) {
    ib_path_record_v2_t paths[TARV_MAX_PATHS];
    const int count = read_answer(answer, paths);
    if (count == 0) {
        tally_.note(Outcome::answers_dropped);
        return;
    }
    const auto is_for = [&](const Waiting& waiting) { return waiting.dgid == paths[0].dgid; };
    Requests taken;
    std::copy_if(sa_.begin(), sa_.end(), std::back_inserter(taken), is_for);
    std::erase_if(sa_, is_for);
    Requests satisfied;
    for (const Waiting& waiting : taken) {
        const bool done = store(waiting.ip, paths, count, waiting.paths);
        if (!done)
            tally_.note(Outcome::put_back);
        (done ? satisfied : sa_).push_back(waiting);
    }
    tally_.note(satisfied.empty() ? Outcome::answers_unmatched : Outcome::answers_used);
    for (const Waiting& waiting : satisfied) {
        Cached* const entry = find(waiting.ip);
        entry->stamp = jiffies();
        reply(waiting, tarv_stat_ok, &entry->record);
    }
}

/* Whether the address then has what is wanted. */
bool Model::store(std::uint32_t ip, ib_path_record_v2_t* paths, int count, tarv_paths_t wanted) {
    rewrite_pkeys(ip, paths, count);
    Cached* const entry = find(ip);
    if (!entry)
        return false;
    tally_.note(Outcome::paths_stored);
    tarv_arp_data_t& record = entry->record;
    std::copy_n(paths, count, record.paths);
    record.paths_count = count;
    record.mask |= TARV_MASK_PRIMARY_PATH | TARV_MASK_SECONDARY_PATH;
    if (count < 2)
        record.mask &= ~static_cast<std::uint32_t>(TARV_MASK_SECONDARY_PATH);
    entry->stamp = jiffies();
    return has_paths(record.mask, wanted);
}

}  // namespace soak

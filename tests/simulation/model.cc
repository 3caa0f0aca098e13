// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The model's requests: what is answered at once, who waits for what, and who is called back.
#include "tests/simulation/model.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "platform/jiffies.h"

namespace simulation {
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

int identical(const State::Requests& list, std::uint32_t ip, tarv_paths_t paths) {
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

void Model::load(unsigned long timeout_seconds) {
    unload();
    now_.static_path.numb_path = 1;
    now_.static_path.pkey = 0xFFFF;
    now_.static_path.mtu = 3;
    last_path_ = {};
    timeout_ = timeout_seconds * 1000;
}

void Model::unload() {
    const bool empty_hand = now_.is.empty_hand;
    now_ = {};
    now_.is.empty_hand = empty_hand;
}

tarv_stat_t Model::ask(const Question& question, tarv_arp_data_t& record) {
    if (now_.is.halted) {
        counts_.note(Count::refused_halted);
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
        counts_.note(Count::misses);
        return tarv_stat_not_found;
    }
    entry->stamp = jiffies();
    record = entry->record;
    const bool complete = !names_paths(question.paths) || has_paths(record.mask, question.paths);
    if (complete || (question.callback && !now_.is.sa_queries)) {
        counts_.note(names_paths(question.paths) && complete ? Count::hits_with_paths
                                                             : Count::hits);
        return tarv_stat_ok;
    }
    if (!question.callback) {
        counts_.note(Count::misses);
        return tarv_stat_not_found;
    }
    return ask_sa(question, retries, record);
}

tarv_stat_t Model::ask_arp(const Question& question, int retries) {
    if (!now_.is.attached) {
        counts_.note(Count::no_driver);
        return tarv_stat_error;
    }
    const bool asks = identical(now_.arp, question.ip, question.paths) <= most_identical;
    now_.arp.push_back(
        {question.ip, question.from, question.paths, question.context, true, retries, now32(), {}});
    if (!asks) {
        counts_.note(Count::held_back);
        return tarv_stat_pending;
    }
    sent_.push_back({.ip = question.ip,
                     .from = question.from,
                     .context = question.context,
                     .media_reset = now_.is.media_reset ? 1 : 0,
                     .gids = {}});
    bool sent = false;
    for (int port = 1; port <= fabric_.adapter().ports(); ++port)
        sent |= fabric_.adapter().port(port).up;
    if (!sent) {
        counts_.note(Count::arp_failed);
        now_.arp.back().callback = false;
        return tarv_stat_error;
    }
    counts_.note(Count::arp_asked);
    now_.is.media_reset = false;
    return tarv_stat_pending;
}

tarv_stat_t Model::ask_sa(const Question& question, int retries, const tarv_arp_data_t& cached) {
    const bool asks = question.paths != tarv_paths_primary ||
                      identical(now_.sa, question.ip, question.paths) <= most_identical;
    now_.sa.push_back({question.ip, question.from, question.paths, question.context, true, retries,
                       now32(), cached.gid});
    if (!asks) {
        counts_.note(Count::held_back);
        return tarv_stat_pending;
    }
    if (query(cached.local_port_num, cached.gid))
        return tarv_stat_pending;
    now_.sa.back().callback = false;
    return tarv_stat_error;
}

/* Whether a query goes out on that port. It names the port's own GID and that of the lowest other
 * one that is valid. */
bool Model::query(std::uint32_t number, const gx_gid_t& dgid) {
    if (number < 1 || number > now_.ports.size() || !now_.ports[number - 1].valid ||
        std::exchange(now_.is.empty_hand, false)) {
        counts_.note(Count::sa_failed);
        return false;
    }
    const State::Port& port = now_.ports[number - 1];
    Sent query = {.port = static_cast<int>(number),
                  .sm_lid = port.sm_lid,
                  .sm_sl = port.sm_sl,
                  .gids = {port.gid}};
    for (std::size_t i = 0; i < now_.ports.size() && query.gids.size() < 2; ++i)
        if (i + 1 != number && now_.ports[i].valid)
            query.gids.insert(i + 1 < number ? query.gids.begin() : query.gids.end(),
                              now_.ports[i].gid);
    query.gids.push_back(dgid);
    sent_.push_back(std::move(query));
    counts_.note(Count::sa_asked);
    return true;
}

void Model::reply(const Waiting& waiting, tarv_stat_t status, const tarv_arp_data_t* record) {
    if (status == tarv_stat_timeout)
        counts_.note(Count::timed_out);
    if (!waiting.callback || waiting.context == administrator)
        return;
    replies_.push_back({waiting.context, status, {}});
    if (record)
        replies_.back().record = *record;
}

void Model::reissue(const Waiting& waiting) {
    if (waiting.retries >= now_.is.retries || now_.is.halted)
        return reply(waiting, tarv_stat_timeout, nullptr);
    counts_.note(Count::reissued);
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
        return now_.is.halted || now32() - waiting.stamp >= limit;
    };
    Requests due;
    std::copy_if(list.begin(), list.end(), std::back_inserter(due), is_due);
    std::erase_if(list, is_due);
    if (arp && !due.empty())
        now_.is.media_reset = true;
    for (const Waiting& waiting : due)
        reissue(waiting);
}

void Model::arp_timer() {
    time_out(now_.arp, arp_patience, true);
}

void Model::sa_timer() {
    time_out(now_.sa, sa_patience, false);
}

tarv_stat_t Model::arp(const tarv_arp_data_t& packet) {
    if (!now_.is.enabled)
        return tarv_stat_ok;
    if (packet.arp_operation != TARV_ARP_OP_REQUEST && packet.arp_operation != TARV_ARP_OP_REPLY)
        return tarv_stat_error;
    tarv_arp_data_t record = packet;
    std::swap(record.src_ip, record.dst_ip);
    if (!now_.is.sa_queries)
        give_static_path(record);
    if (Cached* const entry = find_replaceable(record.dst_ip)) {
        *entry = {record, jiffies()};
        counts_.note(Count::updated);
        return tarv_stat_ok;
    }
    if (Cached* const entry = find(record.dst_ip)) {
        entry->stamp = jiffies();
        counts_.note(Count::kept_static);
        complete(tarv_arp_data_t(entry->record), packet);
        return tarv_stat_ok;
    }
    record.mask |= TARV_MASK_SRC_IP;
    add(record);
    counts_.note(Count::learned);
    complete(record, packet);
    return tarv_stat_ok;
}

void Model::complete(const tarv_arp_data_t& record, const tarv_arp_data_t& packet) {
    const auto known_by = [&](std::uint32_t bit) -> const tarv_arp_data_t& {
        return record.mask & bit ? record : packet;
    };
    const auto is_for = [&](const Waiting& waiting) { return waiting.ip == record.dst_ip; };
    Requests taken;
    std::copy_if(now_.arp.begin(), now_.arp.end(), std::back_inserter(taken), is_for);
    std::erase_if(now_.arp, is_for);
    for (Waiting& waiting : taken) {
        const bool is_static = record.mask & TARV_MASK_STATIC;
        if (waiting.paths == tarv_paths_none || !now_.is.sa_queries ||
            (is_static && has_paths(record.mask, waiting.paths))) {
            reply(waiting, tarv_stat_ok, &record);
            continue;
        }
        const gx_gid_t dgid = known_by(TARV_MASK_GID).gid;
        if (!query(known_by(TARV_MASK_LOCAL_PORT).local_port_num, dgid)) {
            reply(waiting, tarv_stat_error, nullptr);
            continue;
        }
        waiting.dgid = dgid;
        waiting.stamp = now32();
        now_.sa.push_back(waiting);
    }
}

void Model::give_static_path(tarv_arp_data_t& record) {
    rewrite_pkeys(record.dst_ip, &now_.static_path, 1);
    if (record.mask & TARV_MASK_PRIMARY_PATH)
        return;
    counts_.note(Count::static_paths);
    ib_path_record_v2_t& path = record.paths[0];
    path = now_.static_path;
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
 * at which each path starts. */
void Model::rewrite_pkeys(std::uint32_t ip, ib_path_record_v2_t* paths, int count) {
    const std::uint32_t ours = fabric_.our_host().ip;
    if (!now_.is.attached || ((ip ^ ours) & fabric_.ipoib().mask()) != 0)
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
    if (!end || end->at.node != fabric_.our_host().node)
        return false;
    counts_.note(Count::own_pkeys);
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
    const auto begins_here = [&](const State::Port& port) { return port.gid == paths[0].sgid; };
    return std::any_of(now_.ports.begin(), now_.ports.begin() + now_.port_count, begins_here)
               ? count
               : 0;
}

void Model::answer(const Answer& answer) {
    ib_path_record_v2_t paths[TARV_MAX_PATHS];
    const int count = read_answer(answer, paths);
    if (count == 0) {
        counts_.note(Count::answers_dropped);
        return;
    }
    const auto is_for = [&](const Waiting& waiting) { return waiting.dgid == paths[0].dgid; };
    Requests taken;
    std::copy_if(now_.sa.begin(), now_.sa.end(), std::back_inserter(taken), is_for);
    std::erase_if(now_.sa, is_for);
    Requests satisfied;
    for (const Waiting& waiting : taken) {
        const bool done = store(waiting.ip, paths, count, waiting.paths);
        if (!done)
            counts_.note(Count::put_back);
        (done ? satisfied : now_.sa).push_back(waiting);
    }
    counts_.note(satisfied.empty() ? Count::answers_unmatched : Count::answers_used);
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
    counts_.note(Count::paths_stored);
    tarv_arp_data_t& record = entry->record;
    std::copy_n(paths, count, record.paths);
    record.paths_count = count;
    record.mask |= TARV_MASK_PRIMARY_PATH | TARV_MASK_SECONDARY_PATH;
    if (count < 2)
        record.mask &= ~static_cast<std::uint32_t>(TARV_MASK_SECONDARY_PATH);
    entry->stamp = jiffies();
    return has_paths(record.mask, wanted);
}

}  // namespace simulation

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Commands that supply path records by hand.
#include "tarv/logger.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-api-parse.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-ptr.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

/* The last record that addpath built: where its "*" words are taken from. One writer at a time. */
constinit ib_path_record_v2_t last_path = {};

/* A number in a path record, and what is said when it may not be 0 and is. */
struct path_field_t {
    void (*set)(ib_path_record_v2_t& path, unsigned long value);
    unsigned long (*get)(const ib_path_record_v2_t& path);
    const char* refusal;
};

#define PATH_FIELD(field, refusal)                                                               \
    {                                                                                            \
        [](ib_path_record_v2_t& path, unsigned long value) { path.field = value; },              \
            [](const ib_path_record_v2_t& path) -> unsigned long { return path.field; }, refusal \
    }

/* In the order of the words; the commands share all but the two LIDs. */
constexpr path_field_t path_fields[] = {
    PATH_FIELD(dlid, "Could not parse destination lid address.\n"),
    PATH_FIELD(slid, "Could not parse source lid address.\n"),
    PATH_FIELD(raw_traffic, nullptr),
    PATH_FIELD(flow_label, nullptr),
    PATH_FIELD(hop_limut, nullptr),
    PATH_FIELD(traffic_class, nullptr),
    PATH_FIELD(pkey, "Could not parse Partition Key.\n"),
    PATH_FIELD(sl, nullptr),
    PATH_FIELD(mtu_selector, nullptr),
    PATH_FIELD(mtu, "Could not parse MTU.\n"),
    PATH_FIELD(rate_selector, nullptr),
    PATH_FIELD(rate, "Could not parse rate.\n"),
    PATH_FIELD(pkt_life_time_selector, nullptr),
    PATH_FIELD(pkt_life_time, nullptr),
};
#undef PATH_FIELD

constexpr int field_count = sizeof path_fields / sizeof path_fields[0];
constexpr int lid_fields = 2;

/* Words of the two commands, and where in them the fields begin. */
constexpr int add_path_words = 5 + field_count;
constexpr int static_path_words = 1 + field_count - lid_fields;

/* Sets one field of `path` from its word; "*" takes it from `model`. Null, or the refusal. The
 * refused value, which is 0 in the field's width, has been stored. */
const char* set_field(const path_field_t& field, const char* word, ib_path_record_v2_t* path,
                      const ib_path_record_v2_t& model) {
    if (word[0] == '*') {
        field.set(*path, field.get(model));
        return nullptr;
    }
    field.set(*path, parse_number(word));
    return field.get(*path) == 0 ? field.refusal : nullptr;
}

const char* set_fields(int first, char** words, ib_path_record_v2_t* path,
                       const ib_path_record_v2_t& model) {
    for (int i = first; i < field_count; i++)
        if (const char* refusal = set_field(path_fields[i], words[i - first], path, model))
            return refusal;
    return nullptr;
}

tarv_stat_t set_gid(char* word, gx_gid_t* gid, const gx_gid_t& model) {
    if (word[0] != '*')
        return parsegidstr(word, gid);
    *gid = model;
    return tarv_stat_ok;
}

/* Builds the record that the words describe. Null, or the text of the refusal. */
const char* build_path(char** argv, ib_path_record_v2_t* path) {
    path->numb_path = 1;
    if (set_gid(argv[3], &path->dgid, last_path.dgid) != tarv_stat_ok)
        return "Could not parse destination gid address.\n";
    if (set_gid(argv[4], &path->sgid, last_path.sgid) != tarv_stat_ok)
        return "Could not parse source gid address.\n";
    return set_fields(0, argv + 5, path, last_path);
}

}  // namespace

void tarv_proc_reset_last_path() {
    last_path = {};
}

void tarv_proc_cmd_add_path(int argc, char** argv) {
    if (argc != add_path_words) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    const kptr<ib_path_record_v2_t> path(GFP_ATOMIC);
    if (!path) {
        TARV_LOG(TARV_ERROR, "Not enough memory to allocate new path record.\n");
        return;
    }
    u32 dst_ip = 0;
    if (parseipstr(argv[1], &dst_ip) != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "Could not parse destination ip address.\n");
        return;
    }
    const char which = static_cast<char>(argv[2][0] | 0x20);
    if (which != 'p' && which != 's') {
        TARV_LOG(TARV_DEBUG, "Could not parse Primary/Secondary flag.\n");
        return;
    }
    if (const char* refusal = build_path(argv, path.get())) {
        TARV_LOG(TARV_DEBUG, "%s", refusal);
        return;
    }
    last_path = *path;
    const bool primary = which == 'p';
    if (tarv_hash_set_paths(dst_ip, primary ? path.get() : nullptr,
                            primary ? nullptr : path.get()) != tarv_stat_ok)
        TARV_LOG(TARV_DEBUG, "Error updating path record data.\n");
}

void tarv_proc_cmd_set_static_path(int argc, char** argv) {
    if (argc != static_path_words) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    const char* refusal = nullptr;
    {
        const spin_guard guard(static_path_lock);
        refusal = set_fields(lid_fields, argv + 1, &static_path, static_path);
    }
    if (refusal)
        TARV_LOG(TARV_DEBUG, "%s", refusal);
}

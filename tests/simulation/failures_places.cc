// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/failures_places.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace soak {
namespace {

// What every place of a kind has in common.
#define NO_ARP_REQUEST \
    "ERROR tarv_api/__tarv_get_ib_data: Not enough memory to allocate a request entry."
#define NO_SA_REQUEST \
    "ERROR tarv_api/__tarv_get_ib_data: Not enough memory to allocate a SA request entry."
#define NO_REISSUE                                                                              \
    "ERROR tarv_api/tarv_retry_ib_data_request: Not enough memory to allocate a temp_arp_data " \
    "(*)."
#define NOT_SENT "ERROR tarv_api/__tarv_get_ib_data: send_arp_data_fn() failed."
#define NO_ENGINE(what)                                                               \
    "DEBUG tarv_api/tarv_aync_ev_init: " what                                         \
    "\nERROR tarv_api/tarv_init: Error initializing async events registration<-255>." \
    "\nDEBUG tarv_arp_hash/tarv_hash_destroy: The ARP table is empty."                \
    "\nERROR tarv_module/tarv_module_init: Error initializing tarv module.\nload returned -1"
#define NO_PORT(what) what "\nERROR tarv_sa/tarv_sa_init: Cannot get HCA guid and port count."
#define NO_TABLES(what) what "\nERROR tarv_sa/tarv_sa_init: Cannot get port #* gid and pkey"
#define NO_SA_INFO(what) what "\nERROR tarv_sa/tarv_sa_init: Cannot get SA Info."
#define NOT_BUILT(what)                                                            \
    "ERROR tarv_sa/tarv_sa_build_multi_path_rec_query_mad: " what                  \
    "\nDEBUG tarv_sa/tarv_sa_query_path: tarv_sa_build_multi_path_rec_query_mad()" \
    " failed <-255>"
#define NO_DATAGRAM NOT_BUILT("gsi_dtgrm_pool_get() failed <*>")
#define NO_BLOCK NOT_BUILT("gsi_dtgrm_alloc_rmpp_buf() failed")
#define NOT_POSTED                                                 \
    "DEBUG tarv_sa/tarv_sa_query_path: Invalid port object <is_va" \
    "lid:1> or gsi_post_send_dtgrm() failed <*>"
#define NOT_REWRITTEN \
    "\nWARNING tarv_arp_hash/tarv_change_path_pkey: change pkey of path(s) from SA was skipped"
#define NO_INTERFACE \
    "WARNING tarv_arp_hash/tarv_change_path_pkey: local_get_if_info_fn failed" NOT_REWRITTEN
#define NO_LOCAL_PKEY(what)                           \
    "ERROR tarv_arp_hash/tarv_get_local_pkey: " what  \
    "\nWARNING tarv_arp_hash/tarv_change_path_pkey: " \
    "tarv_get_local_pkey failed" NOT_REWRITTEN

using enum Where;

constexpr Rule logged = {};
constexpr Rule request_fails = {.then = Then::request_fails};
constexpr Rule query_fails = {.then = Then::query_fails};
constexpr Rule no_datagram = {.then = Then::query_fails, .counted = Counter::pool_get};
constexpr Rule until_link_up = {.until_link_up = true};
constexpr Rule nothing_more = {.ends = SilentEnd::no_memory_for_the_reissue};

constexpr Rule silent(Silence silence, int load_result = 0) {
    return {.silence = silence, .load_result = load_result};
}

constexpr int no_device = -1;
constexpr int no_memory = -12;

// Where directories or memory for the version file are wanting, so is in the end the control file.
constexpr Place load_places[] = {
    {"kmalloc", load, "", silent(Silence::version_may_be_missing, no_memory)},
    {"proc_mkdir", load, "", silent(Silence::version_may_be_missing, no_memory)},
    {"create_proc_entry",
     load,
     "ERROR tarv_module/tarv_module_init: Error creating /proc entry.",
     {.load_result = no_memory}},
    {"create_proc_entry", load, "", silent(Silence::version_may_be_missing)},
    {"gx_hca_open", load, NO_ENGINE("gx_hca_open() failed <*>"), {.load_result = no_device}},
    {"gx_set_sleepable_async_event_cb",
     load,
     NO_ENGINE("gx_set_sleepable_async_event_cb() failed <*>"),
     {.load_result = no_device}},
    {"rep_open_key", load,
     "QD_LOGGER: rep_open_key failed for, quorvane/modules/tarv/ -- disabling logging\n"
     "load returned 0"},
    {"rep_get_value", load,
     "QD_LOGGER: rep_get_value failed for, quorvane/modules/tarv/ -- disabling logging\n"
     "load returned 0"},
    {"rep_notify_key_change", load, "load returned 0", silent(Silence::level_is_not_followed)},
};

constexpr Place event_places[] = {
    // A port comes up: its SA context is not made until it comes up again.
    {"gx_hca_open", event,
     NO_PORT("DEBUG tarv_sa/tarv_sa_get_hca_guid_and_port_count: gx_hca_open() failed <*>"),
     until_link_up},
    {"gx_hca_query", event,
     NO_PORT("DEBUG tarv_sa/tarv_sa_get_hca_guid_and_port_count: gx_hca_query() failed <*>"),
     until_link_up},
    {"gx_hca_open", event,
     NO_TABLES("DEBUG tarv_sa/tarv_sa_get_port_gid_and_pkey: gx_hca_open() failed <*>"),
     until_link_up},
    {"gx_get_port_gid_tbl", event,
     NO_TABLES("DEBUG tarv_sa/tarv_sa_get_port_gid_and_pkey: gx_get_port_gid_tbl() failed <*>"),
     until_link_up},
    {"gx_get_port_partition_tbl", event,
     NO_TABLES(
         "DEBUG tarv_sa/tarv_sa_get_port_gid_and_pkey: gx_get_port_partition_tbl() failed <*>"),
     until_link_up},
    {"gx_hca_open", event,
     NO_SA_INFO("DEBUG tarv_sa/tarv_sa_get_sa_info: gx_hca_open() failed <*>"), until_link_up},
    {"gx_port_query", event,
     NO_SA_INFO("DEBUG tarv_sa/tarv_sa_get_sa_info: gx_port_query() failed <*>"), until_link_up},
    {"gsi_register_class",
     event,
     "ERROR tarv_sa/tarv_sa_reg_to_gsi: Can't register to GSI\n"
     "ERROR tarv_sa/tarv_sa_init: Cannot register to GSI.",
     {.until_link_up = true, .counted = Counter::gsi_reg}},
    {"gsi_dtgrm_pool_create_named",
     event,
     "ERROR tarv_sa/tarv_sa_reg_to_gsi: Can't allocate GSI datagram pool\n"
     "ERROR tarv_sa/tarv_sa_init: Cannot register to GSI.",
     {.until_link_up = true, .counted = Counter::gsi_pool_create}},

    // The subnet manager moved and is asked for where it was; a port goes down.
    {"gx_hca_open", event, "DEBUG tarv_sa/tarv_sa_get_sa_info: gx_hca_open() failed <*>",
     until_link_up},
    {"gx_port_query", event, "DEBUG tarv_sa/tarv_sa_get_sa_info: gx_port_query() failed <*>",
     until_link_up},
    {"port_num2base_gid", event, "DEBUG tarv_api/tarv_async_event_cb: Received link_down <port:*>",
     silent(Silence::purge_is_left_out)},
    {"gsi_deregister_class", event, "", silent(Silence::called_again)},
    {"gsi_deregister_class", unload, "", silent(Silence::called_again)},
};

// Requests, made by clients, by commands and by re-issues.
constexpr Place request_places[] = {
    {"kmalloc", client, NO_ARP_REQUEST, request_fails},
    {"kmalloc", control, NO_ARP_REQUEST, request_fails},
    {"kmalloc", timer, NO_ARP_REQUEST, request_fails},
    {"kmalloc", gsi, NO_ARP_REQUEST, request_fails},
    {"kmalloc", client, NO_SA_REQUEST, request_fails},
    {"kmalloc", control, NO_SA_REQUEST, request_fails},
    {"kmalloc", timer, NO_SA_REQUEST, request_fails},
    {"kmalloc", control, NO_REISSUE, nothing_more},
    {"kmalloc", timer, NO_REISSUE, nothing_more},
    {"kmalloc", gsi, NO_REISSUE, nothing_more},
    {"kmalloc", unload, NO_REISSUE, nothing_more},
    {"send_arp", client, NOT_SENT, request_fails},
    {"send_arp", control, NOT_SENT, request_fails},
    {"send_arp", timer, NOT_SENT, request_fails},
    {"send_arp", gsi, NOT_SENT, request_fails},
    {"gsi_dtgrm_pool_get", client, NO_DATAGRAM, no_datagram},
    {"gsi_dtgrm_pool_get", control, NO_DATAGRAM, no_datagram},
    {"gsi_dtgrm_pool_get", timer, NO_DATAGRAM, no_datagram},
    {"gsi_dtgrm_pool_get", driver, NO_DATAGRAM, no_datagram},
    {"gsi_dtgrm_alloc_rmpp_buf", client, NO_BLOCK, query_fails},
    {"gsi_dtgrm_alloc_rmpp_buf", control, NO_BLOCK, query_fails},
    {"gsi_dtgrm_alloc_rmpp_buf", timer, NO_BLOCK, query_fails},
    {"gsi_dtgrm_alloc_rmpp_buf", driver, NO_BLOCK, query_fails},
    {"gsi_post_send_dtgrm", client, NOT_POSTED, query_fails},
    {"gsi_post_send_dtgrm", control, NOT_POSTED, query_fails},
    {"gsi_post_send_dtgrm", timer, NOT_POSTED, query_fails},
    {"gsi_post_send_dtgrm", driver, NOT_POSTED, query_fails},
};

// ARP data and path records come in. Static paths get their P_Keys in the driver's context, those
// of the SA in the GSI service's.
constexpr Place intake_places[] = {
    {"kmalloc", driver,
     "ERROR tarv_api/tarv_process_arp_data: Failed allocate memory for local_arp_data (*).",
     logged},
    {"kmalloc", driver,
     "ERROR tarv_api/tarv_process_arp_data: Not enough memory to allocate new arp entry.", logged},
    {"kmalloc", gsi,
     "ERROR tarv_api/tarv_process_path_rec_data: Not enough memory for tarv_hash_entry.", logged},
    {"get_if_info", driver, NO_INTERFACE, logged},
    {"get_if_info", gsi, NO_INTERFACE, logged},
    {"gx_hca_open", driver, NO_LOCAL_PKEY("gx_hca_open failed "), logged},
    {"gx_hca_open", gsi, NO_LOCAL_PKEY("gx_hca_open failed "), logged},
    {"base_gid2port_num", driver, NO_LOCAL_PKEY("base_gid2port_num failed "), logged},
    {"base_gid2port_num", gsi, NO_LOCAL_PKEY("base_gid2port_num failed "), logged},
    {"pkey_index2pkey", gsi,
     "WARNING tarv_arp_hash/tarv_get_local_pkey: pkey_index2pkey failed for index *. will try "
     "next",
     logged},
    {"port_num2base_lid", driver, "", silent(Silence::path_keeps_its_template)},
    {"port_num2base_gid", driver, "", silent(Silence::path_keeps_its_template)},
};

constexpr Place control_places[] = {
    {"copy_from_user", control, "control file took * bytes", silent(Silence::nothing_is_run)},
    {"kmalloc", control,
     "ERROR tarv_api/tarv_proc_cmd_add: Not enough memory to allocate new ib-arp entry.", logged},
    {"kmalloc", control,
     "ERROR tarv_api/tarv_proc_cmd_add_ib_arp: Not enough memory to allocate new ib-arp entry.",
     logged},
    {"kmalloc", control,
     "ERROR tarv_api/tarv_proc_cmd_add_path: Not enough memory to allocate new path record.",
     logged},
    {"kmalloc", control,
     "ERROR tarv_api/tarv_proc_cmd_show: Failed allocate memory for tarv_hash_entry_t (*).",
     logged},
    {"kmalloc", control,
     "ERROR tarv_api/tarv_proc_cmd_show_paths: Failed allocate memory for tarv_hash_entry_t (*).",
     logged},
    {"kmalloc", control,
     "ERROR tarv_arp_hash/tarv_hash_print_to_string: Can't allocate output buffer.\n"
     "table of 0 bytes",
     logged},
    {"kmalloc", control, "\n\nIB-Arp Table entries: *", silent(Silence::shown_in_parts)},
};

constexpr std::span<const Place> tables[] = {load_places, event_places, request_places,
                                             intake_places, control_places};

/* The module is its own client where an administrator invalidates an entry. */
#define TOLD_ERROR                                                                      \
    "* told: -255|DEBUG tarv_api/tarv_get_ib_data_reply_dummy_fn: Invalidation failed " \
    "<Status:-255>."

/* A request that could not be made or sent: who had it made is told, each in his own way. */
std::string told_of_failure(Where where) {
    switch (where) {
        case client:
            return "DEBUG tarv_api/tarv_get_ib_data: status from __tarv_get_ib_data() - -255\n"
                   "* asked: -255";
        case control:
            return "DEBUG tarv_api/tarv_get_ib_data: status from __tarv_get_ib_data() - -255";
        case timer:
        case gsi:
            return "DEBUG tarv_api/tarv_retry_ib_data_request: status from __tarv_get_ib_data() - "
                   "-255\n"
                   "ERROR tarv_api/tarv_retry_ib_data_request: __tarv_get_ib_data() returned "
                   ":-255\n" TOLD_ERROR;
        default:
            return TOLD_ERROR;
    }
}

std::vector<std::string> lines_of(const Place& place) {
    std::string text = place.lines;
    if (place.rule.then == Then::query_fails)
        text += std::string("\nERROR tarv_api/") +
                (place.where == driver ? "tarv_process_arp_data" : "__tarv_get_ib_data") +
                ": Error initiating multipath record query.";
    if (place.rule.then != Then::nothing)
        text += "\n" + told_of_failure(place.where);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

/* A pattern's "*" stands for any text. */
bool matches(std::string_view pattern, std::string_view text) {
    const std::size_t star = pattern.find('*');
    if (star == std::string_view::npos)
        return pattern == text;
    if (!text.starts_with(pattern.substr(0, star)))
        return false;
    const std::string_view rest = pattern.substr(star + 1);
    for (std::size_t at = star; at <= text.size(); ++at)
        if (matches(rest, text.substr(at)))
            return true;
    return false;
}

bool matches_one_of(std::string_view patterns, std::string_view text) {
    for (;;) {
        const std::size_t bar = patterns.find('|');
        if (matches(patterns.substr(0, bar), text))
            return true;
        if (bar == std::string_view::npos)
            return false;
        patterns.remove_prefix(bar + 1);
    }
}

const std::vector<const Place*>& all() {
    static const std::vector<const Place*> places = [] {
        std::vector<const Place*> result;
        for (const std::span<const Place> table : tables)
            for (const Place& place : table)
                result.push_back(&place);
        return result;
    }();
    return places;
}

bool is_at(const Place& place, const std::string& service, Where where) {
    return service == place.service && where == place.where;
}

}  // namespace

const char* reason_of(Silence silence) {
    switch (silence) {
        case Silence::none:
            return "";
        case Silence::version_may_be_missing:
            return "the version file may be missing";
        case Silence::nothing_is_run:
            return "what cannot be copied is no command";
        case Silence::level_is_not_followed:
            return "the level stays as it was read";
        case Silence::purge_is_left_out:
            return "the port's entries stay in the cache";
        case Silence::path_keeps_its_template:
            return "the static path keeps that field";
        case Silence::shown_in_parts:
            return "the table is shown part by part";
        case Silence::called_again:
            return "it is called again until it succeeds";
    }
    return "";
}

const char* reason_of(SilentEnd end) {
    switch (end) {
        case SilentEnd::none:
            return "";
        case SilentEnd::no_memory_for_the_reissue:
            return "no memory for the re-issue";
        case SilentEnd::waiting_for_arp_at_unload:
            return "waiting for ARP at the unload";
    }
    return "";
}

const Place* find_place(const std::string& service, const Mark& mark,
                        const std::vector<std::string>& timeline) {
    for (const Place* place : all()) {
        const std::vector<std::string> lines = lines_of(*place);
        if (is_at(*place, service, mark.where) && mark.line + lines.size() <= timeline.size() &&
            std::equal(lines.begin(), lines.end(),
                       timeline.begin() + static_cast<std::ptrdiff_t>(mark.line),
                       [](const auto& pattern, const auto& text) {
                           return matches_one_of(pattern, text);
                       }))
            return place;
    }
    return nullptr;
}

std::vector<std::string> all_places() {
    std::vector<std::string> names;
    for (const Place* place : all())
        names.push_back(std::string(place->service) + " in " + name_of(place->where) + ": " +
                        (place->rule.silence != Silence::none ? reason_of(place->rule.silence)
                                                              : lines_of(*place).front()));
    return names;
}

std::size_t number_of(const Place& place) {
    return static_cast<std::size_t>(std::ranges::find(all(), &place) - all().begin());
}

std::vector<std::string> expected_at(const std::string& service, Where where) {
    std::vector<std::string> expected;
    for (const Place* place : all()) {
        if (!is_at(*place, service, where))
            continue;
        const std::vector<std::string> lines = lines_of(*place);
        expected.insert(expected.end(), lines.begin(), lines.end());
    }
    return expected;
}

}  // namespace soak

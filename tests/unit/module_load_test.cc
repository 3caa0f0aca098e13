// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Loading and unloading: what the loader is told, what stands afterwards, and that a load that
// fails, at whichever call, leaves nothing behind.
#include "tests/support/module_test.h"

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const Lines banner = {"tarv-module.cc,v 1.37 2005/05/25 08:15:38"};
const Lines initialized = {"TARV: Initialized."};
const Lines unloaded = {"TARV: Unloaded."};
const Lines no_key = {
    "QD_LOGGER: rep_open_key failed for, quorvane/modules/tarv/ -- disabling logging"};
const Lines no_value = {
    "QD_LOGGER: rep_get_value failed for, quorvane/modules/tarv/ -- disabling logging"};

Lines bound(const std::string& level) {
    return {"LOGGER: Added key quorvane/modules/tarv/, trace level " + level};
}

class ModuleLoad : public ModuleTest {};

using Symbols = std::vector<std::pair<std::string, const void*>>;

template <class Function>
const void* address(Function* function) {
    return reinterpret_cast<const void*>(function);
}

TEST_F(ModuleLoad, TellsTheLoaderWhatItIs) {
    EXPECT_EQ((Lines{tarv_module.name, tarv_module.description, tarv_module.depends,
                     tarv_module.vermagic}),
              (Lines{"tarv", "IB_ARP repository module.", "", "2.6.9-34.ELsmp SMP gcc-3.4"}));
    Lines params;
    for (u32 i = 0; i < tarv_module.param_count; i++)
        params.push_back(host::kformat("%s type %d permissions %o", tarv_module.params[i].name,
                                       tarv_module.params[i].type,
                                       tarv_module.params[i].permissions));
    EXPECT_THAT(params, ElementsAre("arp_cache_timeout_sec type 1 permissions 0",
                                    "tarv_is_mode_redundant type 0 permissions 0"));
    Symbols exports;
    for (u32 i = 0; i < tarv_module.export_count; i++)
        exports.emplace_back(tarv_module.exports[i].name, tarv_module.exports[i].address);
    EXPECT_EQ(exports, (Symbols{{"tarv_get_ib_data", address(tarv_get_ib_data)},
                                {"TARV_log_rep_h", &TARV_log_rep_h},
                                {"TARV_trace_level", &TARV_trace_level}}));
}

TEST_F(ModuleLoad, StandsAfterALoadAndIsGoneAfterAnUnload) {
    set_level(TARV_ERROR);
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(console(), banner + initialized + bound("1"));
    Symbols names;
    for (const std::string& name : host::inter_module_names())
        names.emplace_back(name, host::InterModuleUse(name).data());
    EXPECT_EQ(names, (Symbols{{"tarv_get_ib_data_fn", address(tarv_get_ib_data)},
                              {"tarv_process_arp_data_fn", address(tarv_process_arp_data)},
                              {"tarv_detach_fn", address(tarv_detach)},
                              {"tarv_attach_fn", address(tarv_attach)},
                              {"tarv_seq_cache_lookup_fn", address(tarv_hash_seq_cache_lookup)}}));
    EXPECT_THAT(host::proc_entries(),
                ElementsAre("quorvane/", "quorvane/tarv/", "quorvane/tarv/control",
                            "quorvane/tarv/version"));
    EXPECT_EQ(host::proc_mode(control_path), 0644u);
    EXPECT_EQ(host::proc_mode(version_path), 0444u);
    EXPECT_NE(tarv_proc_entry, nullptr);
    unload();
    EXPECT_EQ(console(), unloaded);
    EXPECT_THAT(host::proc_entries(), ElementsAre("quorvane/", "quorvane/tarv/"));
    EXPECT_THAT(kernel.remains(), IsEmpty());
}

/* A call that fails while the directories are there already, or are not. */
struct Failure {
    const char* name;
    bool directories;
    const char* service;
    unsigned long nth;
    int result;
    Lines lines;
    std::vector<std::string> files;
};

class ModuleLoadFailure : public ModuleTest, public testing::WithParamInterface<Failure> {};

const std::vector<std::string> both_files = {"quorvane/", "quorvane/tarv/", "quorvane/tarv/control",
                                             "quorvane/tarv/version"};
const std::vector<std::string> only_control = {"quorvane/", "quorvane/tarv/",
                                               "quorvane/tarv/control"};
const std::vector<std::string> only_directories = {"quorvane/", "quorvane/tarv/"};
const Lines given_up = banner + initialized + unloaded;

INSTANTIATE_TEST_SUITE_P(
    Steps, ModuleLoadFailure,
    testing::Values(
        Failure{"no_adapter", true, "gx_hca_open", 1, -1, banner, only_directories},
        Failure{"no_events", true, "gx_set_sleepable_async_event_cb", 1, -1, banner,
                only_directories},
        Failure{"no_banner_memory", true, "kmalloc", 1, 0, banner + initialized + bound("4"),
                only_control},
        Failure{"no_path_memory", true, "kmalloc", 2, 0, banner + initialized + bound("4"),
                only_control},
        Failure{"no_version_file", true, "create_proc_entry", 2, -12, given_up, only_directories},
        Failure{"no_banner_memory_at_first", false, "kmalloc", 1, -12, given_up, {}},
        Failure{"no_directory_memory_at_first", false, "kmalloc", 3, -12, given_up, {}},
        Failure{"no_upper_directory", false, "proc_mkdir", 2, -12, given_up, {}},
        Failure{"no_lower_directory", false, "proc_mkdir", 3, -12, given_up, {"quorvane/"}},
        Failure{"no_version_file_at_first", false, "create_proc_entry", 2, 0,
                banner + initialized + bound("4"), only_control},
        Failure{"no_control_file_at_first", false, "create_proc_entry", 3, -12, given_up,
                only_directories},
        Failure{"no_key", true, "rep_open_key", 1, 0, banner + initialized + no_key, both_files},
        Failure{"no_value", true, "rep_get_value", 1, 0, banner + initialized + no_value,
                both_files},
        Failure{"no_notification", true, "rep_notify_key_change", 1, 0,
                banner + initialized + bound("4"), both_files}),
    row_name);

TEST_P(ModuleLoadFailure, ReturnsWhatItShouldAndLeavesNothing) {
    const Failure& row = GetParam();
    set_level(TARV_DEBUG);
    if (row.directories) {
        ASSERT_EQ(load(), 0);
        unload();
        console();
    }
    host::fail_nth(row.service, row.nth);
    EXPECT_EQ(load(), row.result);
    EXPECT_EQ(console(), row.lines);
    EXPECT_EQ(host::proc_entries(), row.files);
    EXPECT_EQ(TARV_trace_level, row.lines.back() == bound("4")[0] ? 4 : 0);
    machine.stop();
    EXPECT_THAT(kernel.remains(), IsEmpty());
    host::clear_faults();
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(host::proc_entries(), both_files);
}

/* The key as an administrator may have set it, and what becomes of the module's level. */
TEST_F(ModuleLoad, FollowsItsTraceLevelUntilItGoes) {
    host::remove_repository_key(level_key);
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(console(), banner + initialized + no_key);
    EXPECT_EQ(TARV_trace_level, 0);
    set_level(5);
    EXPECT_EQ(TARV_trace_level, 0) << "nobody asked for changes of a key that was not there";
    unload();
    console();
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(console(), banner + initialized + bound("5"));
    EXPECT_EQ(TARV_trace_level, 5);
    set_level(0x100000002);
    EXPECT_EQ(TARV_trace_level, 2);
    unload();
    set_level(3);
    EXPECT_EQ(TARV_trace_level, 2) << "the key is followed only while the module is loaded";
    host::remove_repository_key(level_key);
    host::set_repository_value(level_key, "other", 1);
    console();
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(console(), banner + initialized + no_value);
    EXPECT_EQ(TARV_trace_level, 0);
}

/* A line of a level is printed when both thresholds reach it. */
struct Gate {
    const char* name;
    int host_level;
    int module_level;
    const char* levels;
};

class LogGate : public ControlTest, public testing::WithParamInterface<Gate> {};

INSTANTIATE_TEST_SUITE_P(
    Levels, LogGate,
    testing::Values(Gate{"nothing_at_0", 5, 0, ""}, Gate{"nothing_at_host_0", 0, 5, ""},
                    Gate{"errors", 5, 1, "E"}, Gate{"errors_by_the_host", 1, 5, "E"},
                    Gate{"warnings", 2, 5, "EW"}, Gate{"no_line_has_level_3", 3, 3, "EW"},
                    Gate{"debug", 5, 4, "EWD"}, Gate{"all", 5, 5, "EWDF"}),
    row_name);

TEST_P(LogGate, LetsTheLevelsPassThatBothThresholdsReach) {
    host::set_logger_level(GetParam().host_level);
    set_level(static_cast<std::uint64_t>(GetParam().module_level));
    console();
    command("show 10.0.0.9");
    command("remove 10.0.0.9");
    command("sa_queries on");
    command("invalidate 10.0.0.9 0");
    std::string levels;
    for (const std::string& line : console())
        if (levels.find(line[0]) == levels.npos)
            levels += line[0];
    EXPECT_EQ(levels, GetParam().levels);
}

}  // namespace

// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The small services: loading modules, names between them, the repository, faults.
#include "host/services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "host/console.h"
#include "host/faults.h"
#include "host/kernel.h"
#include "platform/logger.h"
#include "platform/memory.h"
#include "platform/proc.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

u8 byte_param = 3;
unsigned long ulong_param = 1000;
int init_result = 0;
int init_calls = 0;
struct module* owner = nullptr;

const module_param_t params[] = {
    {"byte", module_param_byte, &byte_param, 0},
    {"ulong", module_param_ulong, &ulong_param, 0},
};
const module_info_t test_module = {
    .name = "test",
    .description = "",
    .depends = "",
    .vermagic = "",
    .init =
        [] {
            ++init_calls;
            owner = this_module();
            return init_result;
        },
    .exit = [] { owner = nullptr; },
    .params = params,
    .param_count = 2,
    .exports = nullptr,
    .export_count = 0,
};

class Services : public testing::Test {
  protected:
    Services() { init_result = init_calls = 0; }
    host::Kernel kernel_;
};

TEST_F(Services, LoadsAModuleWithParametersAndForgetsThemAtTheNextLoad) {
    EXPECT_EQ(host::load_module(test_module, {"byte=0x1f", "ulong=077"}), 0);
    EXPECT_EQ(byte_param, 0x1F);
    EXPECT_EQ(ulong_param, 077u);
    EXPECT_NE(owner, nullptr);
    EXPECT_EQ(this_module(), owner);
    host::unload_module(test_module);
    EXPECT_EQ(owner, nullptr);
    EXPECT_EQ(this_module(), nullptr);
    EXPECT_EQ(host::load_module(test_module, {"byte=255"}), 0);
    EXPECT_EQ(byte_param, 255);
    EXPECT_EQ(ulong_param, 1000u);
    host::unload_module(test_module);
}

TEST_F(Services, UnusableParametersCallNothing) {
    for (const char* parameter : {"other=1", "byte", "byte=", "byte=256", "byte=-1", "byte=1x",
                                  "byte= 1", "byte=08", "ulong=18446744073709551616", "=1"}) {
        EXPECT_THROW(host::load_module(test_module, {"ulong=5", parameter}), std::invalid_argument)
            << parameter;
        EXPECT_NE(ulong_param, 5u) << parameter;
    }
    EXPECT_EQ(init_calls, 0);
}

TEST_F(Services, ModulesFindEachOthersNames) {
    const int first = 0;
    const int second = 0;
    inter_module_register("first_fn", nullptr, &first);
    inter_module_register("second_fn", nullptr, &second);
    EXPECT_EQ(host::inter_module_get("second_fn"), &second);
    EXPECT_EQ(host::inter_module_get("third_fn"), nullptr);
    EXPECT_THAT(host::inter_module_names(), ElementsAre("first_fn", "second_fn"));
    EXPECT_EQ(kernel_.remains().size(), 2u);
    inter_module_unregister("first_fn");
    inter_module_unregister("second_fn");
    EXPECT_THAT(kernel_.remains(), IsEmpty());
}

TEST_F(Services, TheRepositoryTellsOfChanges) {
    rep_key_t key = nullptr;
    EXPECT_NE(rep_open_key(rep_get_root(), "a/b/", 0, &key), 0);
    host::set_repository_value("a/b/", "level", 4);
    ASSERT_EQ(rep_open_key(rep_get_root(), "a/b/", 0, &key), 0);
    u64 value = 0;
    u32 size = sizeof value;
    EXPECT_NE(rep_get_value(key, "other", 0, &value, &size), 0);
    ASSERT_EQ(rep_get_value(key, "level", 0, &value, &size), 0);
    EXPECT_EQ(value, 4u);
    size = 4;
    EXPECT_NE(rep_get_value(key, "level", 0, &value, &size), 0);

    int level = 0;
    rep_notify_t handle = nullptr;
    ASSERT_EQ(rep_notify_key_change(key, 0, 2, trace_lvl_change_cb, &level, &handle), 0);
    EXPECT_THAT(kernel_.remains(), ElementsAre("repository: changes of a/b/ are asked for",
                                               "repository: the key a/b/ is open"));
    rep_close_key(key);
    host::set_repository_value("a/b/", "level", 0x7'0000'0005);
    EXPECT_EQ(level, 5);
    host::set_repository_value("a/", "level", 1);
    EXPECT_EQ(level, 5);
    rep_notify_del(handle);
    rep_notify_del(nullptr);
    host::set_repository_value("a/b/", "level", 2);
    EXPECT_EQ(level, 5);
    EXPECT_THAT(kernel_.remains(), IsEmpty());
    host::remove_repository_key("a/b/");
    EXPECT_NE(rep_open_key(rep_get_root(), "a/b/", 0, &key), 0);
}

TEST_F(Services, MemoryComesInPiecesOfAtMostFourMebibytes) {
    void* const most = kmalloc(4u << 20, GFP_KERNEL);
    EXPECT_NE(most, nullptr);
    kfree(most);
    EXPECT_EQ(kmalloc((4u << 20) + 1, GFP_KERNEL), nullptr);
}

TEST(Faults, HitTheCallTheyWereSetForOnce) {
    const host::Kernel kernel;
    kfree(kmalloc(1, GFP_ATOMIC));
    host::fail_nth("kmalloc", 3);
    host::fail_nth("kmalloc", 1);
    std::string outcome;
    for (int call = 0; call < 5; ++call) {
        void* const memory = kmalloc(1, GFP_ATOMIC);
        outcome += memory ? '+' : '-';
        kfree(memory);
    }
    EXPECT_EQ(outcome, "-+-++");
    EXPECT_EQ(host::calls_of("kmalloc"), 6u);
    host::fail_nth("kmalloc", 1);
    host::clear_faults();
    EXPECT_EQ(host::calls_of("kmalloc"), 0u);
    void* const memory = kmalloc(1, GFP_ATOMIC);
    EXPECT_NE(memory, nullptr);
    kfree(memory);
}

}  // namespace

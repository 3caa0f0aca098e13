// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The version record: what its line is made of, how it is read, and what is left when it cannot be
// made.
#include "platform/memory.h"
#include "platform/proc.h"
#include "tarv/qversion.h"
#include "tests/support/module_test.h"

using namespace support;

namespace {

const std::string built = " (3.4) (2.6.9-34.ELsmp) (Mar 19 2006) 07:54:49\n";

/* What a record is made from, and the first three fields of its line. */
struct Record {
    const char* name;
    const char* module;
    const char* version;
    const char* tag;
    std::string fields;
    const char* file = "quorvane/tarv/version";
};

class VersionRecord : public MachineTest, public testing::WithParamInterface<Record> {};

constexpr char release_tag[] = "$Name: IB_CODE_DRAVONIK_V4_355_BR_V355_01_20060112 $";

INSTANTIATE_TEST_SUITE_P(
    Fields, VersionRecord,
    testing::Values(
        Record{"module", "tarv", "1.21", release_tag, "tarv 1.21 IB_CODE_DRAVONIK_V4_355_BR_V"},
        Record{"version_blank", "tarv", " \t\xA0 ", "$Name: A $", "tarv 0 A"},
        Record{"version_empty", "tarv", "", "$Name: A $", "tarv 0 A"},
        Record{"version_null", "tarv", nullptr, "$Name: A $", "tarv 0 A"},
        Record{"version_keyword", "tarv", "$Revision: 1.37 $", "$Name: A $", "tarv 1.37 A"},
        Record{"version_keyword_empty", "tarv", "$Revision: $", "$Name: A $", "tarv 0 A"},
        Record{"version_keyword_long", "tarv", "$Revision: 123456789 $", "$Name: A $",
               "tarv 12345678 A"},
        Record{"version_keyword_cut", "tarv", "$R:123456789012$", "$Name: A $", "tarv 123456789 A"},
        Record{"version_without_dollar", "tarv", "a:b", "$Name: A $", "tarv a:b A"},
        Record{"version_whole", "tarv", " 1 2 ", "$Name: A $", "tarv  1 2  A"},
        Record{"tag_null", "tarv", "1", nullptr, "tarv 1 NoTag"},
        Record{"tag_blank", "tarv", "1", "  ", "tarv 1 NoTag"},
        Record{"tag_without_colon", "tarv", "1", "$Name A $", "tarv 1 NoTag"},
        Record{"tag_without_end", "tarv", "1", "$Name: A", "tarv 1 NoTag"},
        Record{"tag_empty", "tarv", "1", "$Name:  \t $", "tarv 1 NoTag"},
        Record{"tag_inner_blanks", "tarv", "1", "x:  A  B  $ $", "tarv 1 A  B"},
        Record{"tag_29", "tarv", "1", "x:aaaaaaaaaaaaaaaaaaaaaaaaaaaaa$",
               "tarv 1 aaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
        Record{"tag_30", "tarv", "1", "x:aaaaaaaaaaaaaaaaaaaaaaaaaaaaab$",
               "tarv 1 aaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
        Record{"name_blank", " ", "1", "$Name: A $", "Unknown 1 A", "quorvane/ /version"}),
    row_name);

TEST_P(VersionRecord, IsOneLineOfSevenFields) {
    const Record& row = GetParam();
    const std::size_t bytes = host::memory_use().bytes;
    ASSERT_EQ(module_version_init(row.module, row.version, row.tag), 0);
    const std::string line = row.fields + built;
    EXPECT_EQ(host::ProcFile(row.file).read(4096), line);
    EXPECT_EQ(host::memory_use().bytes - bytes, line.size() + 1);
    EXPECT_EQ(host::proc_mode(row.file), 0444u);
    EXPECT_EQ(module_version_exit(row.module), 0);
    EXPECT_EQ(module_banner, nullptr);
}

class VersionTest : public MachineTest {};

TEST_F(VersionTest, OfANamelessModuleCannotBeRemovedByName) {
    ASSERT_EQ(module_version_init(nullptr, "1", nullptr), 0);
    const std::vector<std::string> entries = host::proc_entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(host::ProcFile(entries.back()).read(4096), "Unknown 1 NoTag" + built);
    EXPECT_EQ(module_version_exit(nullptr), -1);
    remove_proc_entry(entries.back().c_str(), nullptr);
    kfree(module_banner);
    module_banner = nullptr;
}

/* A long name, whose path asks for memory at both ends of the record's life. */
TEST_F(VersionTest, OfALongNameNeedsMemoryToGo) {
    const std::string name(100, 'n');
    ASSERT_EQ(module_version_init(name.c_str(), "1", nullptr), 0);
    host::fail_nth("kmalloc", 1);
    EXPECT_EQ(module_version_exit(name.c_str()), -1);
    EXPECT_EQ(host::ProcFile("quorvane/" + name + "/version").read(4096),
              name + " 1 NoTag" + built);
    EXPECT_EQ(module_version_exit(name.c_str()), 0);
}

/* One call of the handler: what it gives for a line of `length` bytes. */
TEST_F(VersionTest, IsServedFromAnyOffset) {
    struct Call {
        off_t off;
        int count;
        int result;
        int eof;
    };
    ASSERT_EQ(module_version_init("tarv", "1.21", nullptr), 0);
    const std::string line = "tarv 1.21 NoTag" + built;
    const int length = static_cast<int>(line.size());
    for (const Call& call :
         {Call{0, 3072, length, 1}, Call{0, length, length, 1}, Call{0, length - 1, length - 1, 0},
          Call{5, 10, 10, 0}, Call{length - 1, 10, 1, 1}, Call{length, 10, 0, 1},
          Call{length + 1, 10, 0, 1}, Call{3000, 1, 0, 1}}) {
        std::vector<char> page(PAGE_SIZE);
        char* start = nullptr;
        int eof = 0;
        EXPECT_EQ(version_read_proc(page.data(), &start, call.off, call.count, &eof, nullptr),
                  call.result);
        EXPECT_EQ(eof, call.eof) << call.off;
        EXPECT_EQ(start, page.data() + call.off);
        EXPECT_EQ(std::string(page.data()), line);
    }
    host::ProcFile file(version_path);
    std::string text;
    for (std::string one = file.read(1); !one.empty(); one = file.read(1))
        text += one;
    EXPECT_EQ(text, line);
    EXPECT_EQ(module_version_exit("tarv"), 0);
}

TEST_F(VersionTest, ReadsAsAnErrorWithoutALine) {
    char page[PAGE_SIZE];
    char* start = nullptr;
    int eof = 0;
    EXPECT_EQ(version_read_proc(page, &start, 0, 3072, &eof, nullptr), 6);
    EXPECT_STREQ(page, "Error\n");
    EXPECT_EQ(eof, 1);
}

}  // namespace

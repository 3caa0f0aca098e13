// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// /proc: the tree, the conventions of its handlers, and files closed early.
#include "platform/proc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "host/faults.h"
#include "host/kernel.h"
#include "host/services.h"
#include "platform/semaphore.h"
#include "platform/uaccess.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string text;              // what the handlers below serve
std::vector<long> offsets;     // at which they were called
std::vector<int> counts;       // and for how much
std::string written;           // what was written
unsigned long not_copied = 0;  // of it

void note(off_t off, int count) {
    offsets.push_back(off);
    counts.push_back(count);
}

int min_left(off_t off, int count) {
    const long left = static_cast<long>(text.size()) - off;
    return static_cast<int>(std::clamp<long>(left, 0, count));
}

/* The whole text stands in the page. */
int read_whole(char* page, char**, off_t off, int count, int*, void*) {
    note(off, count);
    std::memcpy(page, text.data(), text.size());
    return static_cast<int>(text.size());
}

/* The bytes stand inside the page. */
int read_inside(char* page, char** start, off_t off, int count, int* eof, void*) {
    note(off, count);
    const int length = min_left(off, count);
    *start = page + 100;
    std::memcpy(*start, text.data() + off, static_cast<size_t>(length));
    *eof = off + length == static_cast<long>(text.size());
    return length;
}

/* The bytes stand at the page's start and the offset advances as told. */
int read_told(char* page, char** start, off_t off, int count, int* eof, void*) {
    note(off, count);
    const int length = min_left(off, count);
    std::memcpy(page, text.data() + off, static_cast<size_t>(length));
    *start = reinterpret_cast<char*>(static_cast<long>(length));
    *eof = off + length == static_cast<long>(text.size());
    return length;
}

int write_noting(struct file*, const char* buffer, unsigned long count, void*) {
    char own[64] = {};
    not_copied = copy_from_user(own, buffer, count);
    written.assign(own, count - not_copied);
    return static_cast<int>(count);
}

class ProcTest : public testing::Test {
  protected:
    ProcTest() {
        offsets.clear();
        counts.clear();
    }
    static proc_dir_entry* make(const char* name, read_proc_t* read, u16 mode = 0) {
        proc_dir_entry* const entry = create_proc_entry(name, mode, nullptr);
        entry->read_proc = read;
        entry->write_proc = write_noting;
        return entry;
    }
    static std::string letters(std::size_t size) {
        std::string result(size, ' ');
        for (std::size_t i = 0; i < size; ++i)
            result[i] = static_cast<char>('a' + i % 23);
        return result;
    }
    host::Kernel kernel_;
};

struct Convention {
    const char* name;
    read_proc_t* handler;
    std::size_t size;  ///< of the text
};
class ProcConvention : public ProcTest, public testing::WithParamInterface<Convention> {};
INSTANTIATE_TEST_SUITE_P(Handlers, ProcConvention,
                         testing::Values(Convention{"Whole", read_whole, 4000},
                                         Convention{"Inside", read_inside, 2900},
                                         Convention{"InsideLong", read_inside, 20'000},
                                         Convention{"Told", read_told, 20'000},
                                         Convention{"Empty", read_told, 0}),
                         [](const auto& row) { return row.param.name; });

TEST_P(ProcConvention, GivesTheTextInOneReadAndInMany) {
    text = letters(GetParam().size);
    make("file", GetParam().handler);
    host::ProcFile at_once("file");
    EXPECT_EQ(at_once.read(100'000), text);
    EXPECT_EQ(at_once.read(100'000), "");
    host::ProcFile file("file");
    std::string pieces;
    for (std::string piece; !(piece = file.read(777)).empty();)
        pieces += piece;
    EXPECT_EQ(pieces, text);
    EXPECT_EQ(file.read_at(5, 10), text.substr(std::min<std::size_t>(10, text.size()), 5));
    EXPECT_THAT(counts, testing::Each(testing::Le(3072)));
}

TEST_F(ProcTest, CallsTheHandlerAgainWithWhatIsLeftToRead) {
    text = letters(9000);
    make("file", read_told);
    EXPECT_EQ(host::ProcFile("file").read(4000), text.substr(0, 4000));
    // The rest is the pass that closing the file brought to its end.
    EXPECT_THAT(offsets, ElementsAre(0, 3072, 4000, 7072));
    EXPECT_THAT(counts, ElementsAre(3072, 928, 3072, 3072));
}

TEST_F(ProcTest, AsksTheHandlerInOrderWhateverTheSeeks) {
    text = letters(5000);
    make("file", read_told);
    {
        host::ProcFile file("file");
        EXPECT_EQ(file.read_at(10, 1000), text.substr(1000, 10));
        EXPECT_EQ(file.read(500), text.substr(0, 500));
        file.seek(4321);
        EXPECT_THAT(offsets, ElementsAre(0));
        EXPECT_THROW(file.read_at(1, -1), std::system_error);
    }
    EXPECT_THAT(offsets, ElementsAre(0, 1010, 4082));
}

/* The text of the moment stands in the page, or an error in its place. */
int read_answer = 0;
int read_changing(char* page, char**, off_t, int, int* eof, void*) {
    std::memcpy(page, text.data(), text.size());
    *eof = 1;
    return read_answer < 0 ? read_answer : static_cast<int>(text.size());
}

TEST_F(ProcTest, ServesWhatWasGivenOnceAndAnErrorOnlyInItsPlace) {
    make("file", read_changing);
    host::ProcFile file("file");
    text = "first text";
    read_answer = -ENOMEM;
    EXPECT_THROW(file.read(3), std::system_error);
    read_answer = 0;
    EXPECT_EQ(file.read(3), "fir");
    text = "second text, longer";
    EXPECT_EQ(file.read(100), "st text");
    EXPECT_EQ(file.read(100), "");
    file.seek(0);
    EXPECT_EQ(file.read(100), "first text");
    EXPECT_EQ(host::ProcFile("file").read(100), text);
}

/* Nothing that a handler leaves out is a zero by chance. */
TEST_F(ProcTest, HandsInAPageThatIsNotEmpty) {
    make("file", [](char*, char**, off_t, int, int* eof, void*) {
        *eof = 1;
        return int{PAGE_SIZE};
    });
    EXPECT_EQ(host::ProcFile("file").read(PAGE_SIZE).find('\0'), std::string::npos);
}

TEST_F(ProcTest, DeathOfAHandlerThatGivesMoreThanThePage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    make("file", [](char*, char**, off_t, int, int*, void*) { return 4097; });
    EXPECT_DEATH(host::ProcFile("file").read(10), "read_proc of file: 4097 bytes");
}

TEST_F(ProcTest, WritesOnceWithBytesOfTheProcess) {
    make("file", nullptr, 0644);
    host::ProcFile file("file");
    EXPECT_EQ(file.write("show 1"), 6);
    EXPECT_EQ(written, "show 1");
    host::fail_nth("copy_from_user", 1);
    EXPECT_EQ(file.write("again"), 5);
    EXPECT_EQ(not_copied, 5u);
    make("silent", nullptr);
    EXPECT_EQ(host::ProcFile("silent").write("x"), -EACCES);
}

TEST_F(ProcTest, KeepsATree) {
    EXPECT_EQ(create_proc_entry("a/b", 0, nullptr), nullptr);
    EXPECT_EQ(proc_mkdir("a/b", nullptr), nullptr);
    proc_dir_entry* const a = proc_mkdir("a", nullptr);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(proc_mkdir("a", nullptr), nullptr);
    ASSERT_NE(create_proc_entry("b", 0, a), nullptr);
    EXPECT_EQ(create_proc_entry("a/b", 0, nullptr), nullptr);
    ASSERT_NE(create_proc_entry("a/c", 0640, nullptr), nullptr);
    EXPECT_THAT(host::proc_entries(), ElementsAre("a/", "a/b", "a/c"));
    EXPECT_EQ(host::proc_mode("a/b"), 0444u);
    EXPECT_EQ(host::proc_mode("a/c"), 0640u);
    EXPECT_THAT(kernel_.remains(),
                ElementsAre("proc: the file a/b stands", "proc: the file a/c stands"));
    remove_proc_entry("a/c", nullptr);
    remove_proc_entry("b", a);
    EXPECT_THAT(kernel_.remains(), IsEmpty());
    EXPECT_THAT(host::proc_entries(), ElementsAre("a/"));
}

TEST_F(ProcTest, AnOpenFileOutlivesItsEntry) {
    text = letters(5000);
    make("file", read_told, 0644);
    host::ProcFile file("file");
    EXPECT_EQ(file.read(10).size(), 10u);
    remove_proc_entry("file", nullptr);
    EXPECT_EQ(file.read(10), "");
    EXPECT_EQ(file.write("x"), -EIO);
    EXPECT_THAT(offsets, ElementsAre(0));
}

}  // namespace

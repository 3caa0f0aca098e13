// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// printk: the kernel's formatting, and how texts become lines.
#include "host/console.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/kernel.h"
#include "platform/printk.h"
#include "platform/spinlock.h"
#include "platform/string.h"

namespace {

using testing::ElementsAre;

/* Hidden from the compiler, which knows that the C library's printf does not take it. */
const char* no_text() {
    static const char* volatile text = nullptr;
    return text;
}

/* Not a literal: the compilers do not agree on whether an int may go with it. */
const char* narrow_format = "%hhx %hd %hhd";

struct Format {
    const char* name;
    std::string (*made)();
    const char* expected;
};
const Format formats[] = {
    {"Pointer", [] { return host::kformat("%p", reinterpret_cast<void*>(0xABCDEF)); },
     "0000000000abcdef"},
    {"NullPointer", [] { return host::kformat("[%p]", nullptr); }, "[0000000000000000]"},
    {"LongLong", [] { return host::kformat("%LX %Lx %llu", 0xAull, ~0ull, 7ull); },
     "A ffffffffffffffff 7"},
    {"Signs", [] { return host::kformat("%d %i %+d % d %ld", -5, 6, 7, 8, -9l); }, "-5 6 +7  8 -9"},
    {"IntMinimum", [] { return host::kformat("%d", -2147483647 - 1); }, "-2147483648"},
    {"Narrow", [] { return host::kformat(narrow_format, 0x1FF, 0x18000, 0xFF); }, "ff -32768 -1"},
    {"Width", [] { return host::kformat("[%5d][%-5d][%05d][%*d]", 42, 42, -42, 4, 1); },
     "[   42][42   ][-0042][   1]"},
    {"NegativeStar", [] { return host::kformat("[%*d]", -4, 1); }, "[1   ]"},
    {"Precision", [] { return host::kformat("[%.4x][%6.3d][%.2s]", 0xAu, 7, "abc"); },
     "[000a][   007][ab]"},
    {"Alternate", [] { return host::kformat("%#x %#X %#o", 255u, 255u, 8u); }, "0xff 0XFF 010"},
    {"Text", [] { return host::kformat("[%5s][%-4s]%c%%", "ab", "cd", 'z'); }, "[   ab][cd  ]z%"},
    {"NullText", [] { return host::kformat("%s", no_text()); }, "<NULL>"},
    {"SizeTypes", [] { return host::kformat("%zu %td", sizeof(int), ptrdiff_t{-1}); }, "4 -1"},
    {"Long", [] { return host::kformat("%600d", 1).substr(590); }, "         1"},
};

class KernelFormat : public testing::TestWithParam<Format> {};
INSTANTIATE_TEST_SUITE_P(Conversions, KernelFormat, testing::ValuesIn(formats),
                         [](const auto& row) { return row.param.name; });
TEST_P(KernelFormat, IsTheKernels) {
    EXPECT_EQ(GetParam().made(), GetParam().expected);
}

TEST(Ksnprintf, CutsTheTextAndTellsItsWholeLength) {
    char buffer[5] = "zzzz";
    EXPECT_EQ(ksnprintf(buffer, 4, "%d", 123456), 6);
    EXPECT_STREQ(buffer, "123");
    EXPECT_EQ(ksnprintf(buffer, 0, "x"), 1);
    EXPECT_STREQ(buffer, "123");
}

struct Strtoul {
    const char* text;
    unsigned base;
    unsigned long value;
    size_t used;
};
TEST(Strings, SimpleStrtoulReadsAsTheKernelDoes) {
    const Strtoul rows[] = {{"0x1f,", 0, 0x1F, 4}, {"0xg", 0, 0, 1},   {"017", 0, 15, 3},
                            {"089", 0, 0, 1},      {"42 ", 0, 42, 2},  {" 42", 0, 0, 0},
                            {"-1", 0, 0, 0},       {"ff", 16, 255, 2}, {"", 0, 0, 0}};
    for (const Strtoul& row : rows) {
        char* end = nullptr;
        EXPECT_EQ(simple_strtoul(row.text, &end, row.base), row.value) << row.text;
        EXPECT_EQ(end - row.text, static_cast<ptrdiff_t>(row.used)) << row.text;
    }
}

struct Line {
    int priority;
    std::string text;
    friend bool operator==(const Line&, const Line&) = default;
    friend void PrintTo(const Line& line, std::ostream* out) {
        *out << '<' << line.priority << '>' << line.text;
    }
};

class ConsoleTest : public testing::Test {
  protected:
    static std::vector<Line> lines() {
        std::vector<Line> result;
        for (const host::LogLine& line : host::console_lines())
            result.push_back({line.priority, line.text});
        return result;
    }
    host::Kernel kernel_;
};

TEST_F(ConsoleTest, ReadsTheTagAtTheStartOfALineOnly) {
    EXPECT_EQ(printk("<6>one\n"), 7);
    printk("two <3>\n<1>three\nfour\n");
    printk("<8>five\n");
    EXPECT_THAT(lines(), ElementsAre(Line{6, "one"}, Line{4, "two <3>"}, Line{1, "three"},
                                     Line{4, "four"}, Line{4, "<8>five"}));
}

TEST_F(ConsoleTest, ContinuesALineThatHasNoEnd) {
    printk("<6>a");
    EXPECT_THAT(lines(), ElementsAre(Line{6, "a"}));
    kernel_.advance(3);
    printk("<2>b");
    printk("c\n\nd");
    EXPECT_THAT(lines(), ElementsAre(Line{6, "a<2>bc"}, Line{4, ""}, Line{4, "d"}));
    EXPECT_EQ(host::console_lines()[0].jiffies + 3, host::console_lines()[1].jiffies);
}

TEST_F(ConsoleTest, HandsFinishedLinesToTheReader) {
    std::vector<std::string> seen;
    host::set_console([&](const host::LogLine& line) { seen.push_back(line.text); });
    printk("half");
    EXPECT_TRUE(seen.empty());
    printk(" whole\nrest");
    host::set_console({});
    printk("\n");
    EXPECT_THAT(seen, ElementsAre("half whole"));
}

TEST_F(ConsoleTest, KeepsTheLastLinesOnly) {
    for (int i = 0; i < 65536 + 10; ++i)
        printk("%d\n", i);
    ASSERT_EQ(host::console_lines().size(), 65536u);
    EXPECT_EQ(host::console_lines().front().text, "10");
    host::clear_console();
    EXPECT_TRUE(host::console_lines().empty());
}

}  // namespace
